#pragma once

#include "HALDeviceState.h"
#include "HALIOProcTable.h"

#include <chrono>
#include <span>
#include <string>
#include <vector>

/// The time at which a request to the hardware must have returned, on the host's monotonic clock.
using HALDeadline = std::chrono::steady_clock::time_point;

class HALDeviceDriver;

/// A member of a group of devices that run in one cycle.
struct HALGroupMember {
    CXRef<HALDeviceDriver> device;       ///< null while absent: its streams are silent
    CXRef<HALIOProcTable> table;         ///< the device's own, for reporting its overloads; null while absent
    std::vector<uint32_t> inputChannels; ///< channels per stream, kept while absent
    std::vector<uint32_t> outputChannels;
};

/// A running group of devices, started by HALDeviceDriver::startTogether().
/// Threads: one at a time, never an IO thread.
class DXR_EXPORT HALGroupIO : public CXObject {
public:
    /// Called when the member at `place` has disappeared (both null) or has reappeared. The cycles of the
    /// other members continue. Returns 'nope' if the device cannot run with the others.
    virtual HALStatus setMember(size_t place, const CXRef<HALDeviceDriver>& device,
                                const CXRef<HALIOProcTable>& table) = 0;
    /// Stops the group. No cycle runs after this returns.
    virtual void stop() = 0;
};

/// Controls one hardware device. A device that lacks an ability keeps the function's default implementation,
/// which returns 'nope'. The caller has checked values against the device's state. Once the hardware has
/// applied a change, the driver reports the new state to its sink before it returns.
/// Threads: any thread except an IO thread of the device; startIO() and stopIO() never at the same time. The
///          caller holds no lock that reporting to the driver's sink needs.
/// Waits:   every function, until `deadline` at most.
/// Fails:   'what' if the hardware has not responded by `deadline`; '!dev' if the device was unplugged, which
///          may happen at any time.
class DXR_EXPORT HALDeviceDriver : public CXObject {
public:
    /// `rate` is in Hz, one of the device's rates.
    virtual HALStatus setNominalSampleRate(double rate, HALDeadline deadline);
    virtual HALStatus setBufferFrameSize(uint32_t frameCount, HALDeadline deadline);
    /// `scalar` is 0..1; `element` is 0 or a channel from 1 and has a volume control.
    virtual HALStatus setVolume(HALDirection direction, uint32_t element, float scalar, HALDeadline deadline);
    virtual HALStatus setMuted(HALDirection direction, bool muted, HALDeadline deadline);
    virtual HALStatus setDataSource(HALDirection direction, uint32_t sourceID, HALDeadline deadline);
    virtual HALStatus setName(const std::string& name, HALDeadline deadline);

    /// Runs cycles through `table` until stopIO(): calls table->prepare() and setTiming() first, then
    /// runCycle() on the device's IO thread. Fails if no cycles can be delivered; nothing is left running
    /// then.
    virtual HALStatus startIO(const CXRef<HALIOProcTable>& table, HALDeadline deadline) = 0;
    /// Ends startIO(). No cycle of it runs after this returns.
    virtual void stopIO() = 0;

    /// Runs `members` in one cycle through `table`, with the streams of all members in their order, and
    /// stores the running group in `group`. This device is one of the members, and all are of one group
    /// domain (HALDeviceState::groupDomain). A member may run by startIO() at the same time. Lost cycles are
    /// reported to `table` and to the table of every present member.
    virtual HALStatus startTogether(std::span<const HALGroupMember> members,
                                    const CXRef<HALIOProcTable>& table, HALDeadline deadline,
                                    CXRef<HALGroupIO>& group);
};
