#pragma once

#include "Conformance.h"

#include <map>

/// Wraps a driver's rig so that each device is an aggregate of an input device, an output device and an
/// absent one; the first is the clock device. A direction without channels has no device.
class AggregateRig final : public ConformanceRig {
public:
    explicit AggregateRig(std::unique_ptr<ConformanceRig> devices) : _devices(std::move(devices)) {}

    HALModel& model() override { return _devices->model(); }

    std::string plug(const std::string& name, uint32_t inputs, uint32_t outputs) override
    {
        const std::string uid = "aggregate-" + std::to_string(++_count);
        std::vector<std::string>& subDevices = _subDevices[uid];
        if (inputs > 0)
            subDevices.push_back(_devices->plug(name + " in", inputs, 0));
        if (outputs > 0)
            subDevices.push_back(_devices->plug(name + " out", 0, outputs));
        std::vector<std::string> all = subDevices;
        all.emplace_back("absent");
        makeAggregate(model(), all, {{"uid", uid}, {"name", name}, {"private", 1}, {"master", all.front()}});
        return uid;
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
    int _count = 0;
};
