#pragma once

#include "HALDeviceState.h"
#include "HALIOProcTable.h"

#include <chrono>
#include <span>
#include <string>
#include <vector>

/// When a request to the hardware must have returned, on the host's monotonic clock.
using HALDeadline = std::chrono::steady_clock::time_point;

class HALDeviceDriver;

/// A device that runs in one cycle with others.
struct HALGroupMember {
    CXRef<HALDeviceDriver> device;       ///< null while absent: its streams are silent
    CXRef<HALIOProcTable> table;         ///< the device's own, for its overloads; null while absent
    std::vector<uint32_t> inputChannels; ///< of each stream, also while absent
    std::vector<uint32_t> outputChannels;
};

/// Devices that run together: what HALDeviceDriver::startTogether() has started.
/// Threads: one at a time, never an IO thread.
class DXR_EXPORT HALGroupIO : public CXObject {
public:
    /// The member at `place` has gone (both null), or is there again. The others' cycles go on meanwhile.
    /// 'nope' when the device cannot run with the others.
    virtual HALStatus setMember(size_t place, const CXRef<HALDeviceDriver>& device,
                                const CXRef<HALIOProcTable>& table) = 0;
    /// No cycle runs after it has returned.
    virtual void stop() = 0;
};

/// What the hardware does for one device. A device that lacks an ability keeps the function's default, which
/// returns 'nope'; values are checked against the device's state before.
/// Threads: any thread but an IO thread of the device; startIO() and stopIO() never at the same time. No lock
///          of the caller is held that a report to the driver's sink could need.
/// Waits:   every function, until `deadline` at most; then it returns 'what'. The device may be unplugged at
///          any time: '!dev' then. When the hardware has followed, the driver reports the new state to its
///          sink before returning.
class DXR_EXPORT HALDeviceDriver : public CXObject {
public:
    /// `rate` in Hz, one of the device's.
    virtual HALStatus setNominalSampleRate(double rate, HALDeadline deadline);
    virtual HALStatus setBufferFrameSize(uint32_t frameCount, HALDeadline deadline);
    /// `scalar` is 0..1; `element` is 0 or a channel from 1, and has a volume control.
    virtual HALStatus setVolume(HALDirection direction, uint32_t element, float scalar, HALDeadline deadline);
    virtual HALStatus setMuted(HALDirection direction, bool muted, HALDeadline deadline);
    virtual HALStatus setDataSource(HALDirection direction, uint32_t sourceID, HALDeadline deadline);
    virtual HALStatus setName(const std::string& name, HALDeadline deadline);

    /// Runs cycles through `table` until stopIO(): first table->prepare() and setTiming(), then runCycle() on
    /// the device's IO thread. Fails when no cycle can come; then nothing is left running.
    virtual HALStatus startIO(const CXRef<HALIOProcTable>& table, HALDeadline deadline) = 0;
    /// No cycle of startIO() runs after it has returned.
    virtual void stopIO() = 0;

    /// Runs `members`, this device one of them and all of one group domain (HALDeviceState::groupDomain), in
    /// one cycle through `table`, with the streams of all members in their order, and stores what runs in
    /// `group`. A member may run by startIO() at the same time. Lost cycles are reported to `table` and to
    /// every present member's own.
    virtual HALStatus startTogether(std::span<const HALGroupMember> members,
                                    const CXRef<HALIOProcTable>& table, HALDeadline deadline,
                                    CXRef<HALGroupIO>& group);
};
