#pragma once

#include "ConformanceRig.h"
#include "HALIO.h"

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
        Made made;
        if (inputs > 0)
            made.subDevices.push_back(_devices->plug(name + " in", inputs, 0));
        if (outputs > 0)
            made.subDevices.push_back(_devices->plug(name + " out", 0, outputs));
        std::vector<std::string> all = made.subDevices;
        all.emplace_back("absent");
        made.deviceID = makeAggregate(
            model(), all, {{"uid", uid}, {"name", name}, {"private", 1}, {"master", all.front()}});
        _made.emplace(uid, std::move(made));
        return uid;
    }
    void unplug(const std::string& uid) override
    {
        const Made& made = _made.at(uid);
        model().destroyAggregateDevice(made.deviceID);
        for (const std::string& each : made.subDevices)
            _devices->unplug(each);
    }
    void rename(const std::string& uid, const std::string& name) override
    {
        const CXRef<CXValue> value = CXValue::initWithPlist(name);
        const CXObject* object = value.get();
        writeValue(model(), _made.at(uid).deviceID, at(kAudioObjectPropertyName), object);
    }
    void letTimePass() override { _devices->letTimePass(); }

private:
    struct Made {
        AudioObjectID deviceID = kAudioObjectUnknown;
        std::vector<std::string> subDevices;
    };

    const std::unique_ptr<ConformanceRig> _devices;
    std::map<std::string, Made> _made;
    int _count = 0;
};
