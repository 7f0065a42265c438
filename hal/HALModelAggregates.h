#pragma once

#include "AggregateRegistry.h"
#include "HALModelBackend.h"

/// The aggregate devices of a model, and what they see of it.
/// Threads: any.
class HALModelBackend::Aggregates final : public AggregateHost, public AggregateRegistry {
public:
    explicit Aggregates(HALModelBackend& model) : _model(model) {}

    HALBackend& backend() override { return _model; }
    AudioObjectID deviceForUID(const std::string& uid) const override { return _model.deviceWithUID(uid); }
    std::optional<HALDeviceState> stateOf(AudioObjectID deviceID) const override
    {
        return _model.deviceState(deviceID);
    }
    void changeState(AudioObjectID deviceID, const std::function<void(HALDeviceState&)>& change) override
    {
        _model.updateDevice(deviceID, change);
    }

private:
    HALModelBackend& _model;
};
