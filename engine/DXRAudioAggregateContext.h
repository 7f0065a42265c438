#pragma once

#include "CXPlist.h"
#include "DXRAudioContext.h"

/// Runs nodes of two or more devices from one private aggregate device, which it creates and which lives as
/// long as the context. The clock is the first device that is itself the device of a node; the others are
/// synchronised to it.
class DXR_EXPORT DXRAudioAggregateContext final : public DXRAudioContext {
public:
    /// Returns null and stores the reason in `status` if the aggregate cannot be created. Waits, at most
    /// three seconds, until the new device has channels or all of the devices have disappeared.
    static CXRef<DXRAudioAggregateContext> initWithIO(RunnerIO& io, const CXRef<CXObject>& runner,
                                                      const DXRDeviceNodes& nodes, Viables viables,
                                                      const std::vector<std::string>& deviceUIDs,
                                                      HALStatus* status);

    DXRCycleRecord::Context kind() const noexcept override { return DXRCycleRecord::Context::Aggregate; }
    /// "DXR:", the process ID in hexadecimal, ":" and a random UUID.
    static std::string _uniqueDeviceUID();
    /// The plug-in with that bundle ID; 0 if there is no such plug-in.
    static AudioObjectID _plugInIDFromBundleID(const std::optional<std::string>& bundleID);
    /// The composition that the aggregate reports; null if it cannot be read.
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
