#pragma once

#include "CXPlist.h"
#include "DXRAudioContext.h"

/// Runs nodes of two and more devices from one private aggregate device that it makes of them, and that lives as long
/// as the context. The first of the devices that a node stands for gives the clock; the others are brought to it.
class DXR_EXPORT DXRAudioAggregateContext final : public DXRAudioContext {
public:
    /// Null when the aggregate cannot be made, for the reason in `status`. Waits, for three seconds at most, until
    /// the new device has channels or all of the devices have gone.
    static CXRef<DXRAudioAggregateContext> initWithIO(RunnerIO& io, const CXRef<CXObject>& runner,
                                                      const DXRDeviceNodes& nodes, Viables viables,
                                                      const std::vector<std::string>& deviceUIDs,
                                                      HALStatus* status);

    DXRCycleRecord::Context kind() const noexcept override { return DXRCycleRecord::Context::Aggregate; }
    /// "DXR:", the process ID in hexadecimal, and a UUID that nobody else has.
    static std::string _uniqueDeviceUID();
    /// The plug-in of that bundle ID; 0 for none.
    static AudioObjectID _plugInIDFromBundleID(const std::optional<std::string>& bundleID);
    /// What the aggregate is made of, as it says itself; null when it does not.
    CXPlist _composition() const;

protected:
    const char* className() const override { return "DXRAudioAggregateContext"; }
    std::vector<AudioObjectID> _devicesOfNode(const DXRDeviceNode& node) const override;

private:
    using DXRAudioContext::DXRAudioContext;
    ~DXRAudioAggregateContext() override;

    std::optional<std::string> _clockDeviceUID(const std::vector<std::string>& deviceUIDs) const;
    AudioObjectID _createAggregateDevice(const std::vector<std::string>& deviceUIDs,
                                         const std::optional<std::string>& clockDeviceUID,
                                         HALStatus* status) const;
    void _destroyAggregateDevice();
    void _waitForChannels(const std::vector<std::string>& deviceUIDs) const;
};
