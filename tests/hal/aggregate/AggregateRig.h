#pragma once

#include "Conformance.h"

#include <map>

/// Wraps a driver's rig so that each device is an aggregate of an input device, an output device and an
/// absent one; the first is the clock device. A direction without channels has no device.
class AggregateRig final : public ConformanceRig {
public:
    explicit AggregateRig(std::unique_ptr<ConformanceRig> devices) : _devices(std::move(devices)) {}

    /// Returns `devices`, wrapped if the program tests aggregates.
    static std::unique_ptr<ConformanceRig> wrapIf(bool isWrapped, std::unique_ptr<ConformanceRig> devices)
    {
        if (isWrapped)
            return std::make_unique<AggregateRig>(std::move(devices));
        return devices;
    }

    HALModel& model() override { return _devices->model(); }

    std::string plug(const std::string& name, uint32_t inputs, uint32_t outputs) override
    {
        std::vector<std::string> subDevices;
        if (inputs > 0)
            subDevices.push_back(_devices->plug(name + " in", inputs, 0));
        if (outputs > 0)
            subDevices.push_back(_devices->plug(name + " out", 0, outputs));
        _subDevices[name] = subDevices;
        subDevices.emplace_back("absent");
        makeAggregate(model(), subDevices, {{"uid", name}, {"name", name}, {"private", 1}});
        return name;
    }
    void unplug(const std::string& uid) override
    {
        model().destroyAggregateDevice(deviceWithUID(model(), uid));
        for (const std::string& each : _subDevices.at(uid))
            _devices->unplug(each);
    }
    void letTimePass() override { _devices->letTimePass(); }

private:
    const std::unique_ptr<ConformanceRig> _devices;
    std::map<std::string, std::vector<std::string>> _subDevices; // UIDs, by the aggregate's
};
