#pragma once

#include "CXDispatchQueue.h"
#include "CXDispatchTimer.h"
#include "DXRDeviceNode.h"
#include "LatencyOfPart.h"

#include <array>
#include <memory>
#include <optional>
#include <vector>

/// Adds the delays of an aggregate's rings to the host times of its nodes' buffers, five times per second:
/// the time stamps of an aggregate are those of its clock device, and the samples of the other parts are
/// older or younger.
/// Threads:   as work of `queue`. The rings are read on another thread, so that no cycle waits for the
///            queue meanwhile. That thread keeps nothing alive, because the owner must be able to end the
///            aggregate.
class RingOffsets final : public CXObject {
public:
    using Placements = std::array<CyclePlacement, 2>; ///< input, output
    /// The placements of the last cycle; empty if there was none.
    using LastCycle = CXBlock<std::optional<Placements>()>;
    struct Part {
        CXRef<DXRDeviceNode> node;
        std::vector<AudioObjectID> devices; ///< the devices whose samples the node carries
    };

    /// Starts reading. Returns null if `deviceID` is not an aggregate of several devices, or without memory:
    /// host times are then those of the clock device. Values that cannot be read are read again.
    static CXRef<RingOffsets> initWithDevice(AudioObjectID deviceID, std::vector<Part> parts,
                                             LastCycle lastCycle, const CXRef<CXDispatchQueue>& queue);
    /// No offset changes after it has returned. Must be called before the last reference is released.
    void stop();

private:
    /// A part as the reading thread needs it, which must not keep the node alive.
    struct Ring {
        bool isInput;
        std::vector<AudioObjectID> devices;
    };

    RingOffsets(CXRef<CXDispatchTimer> timer, std::vector<Part> parts, LastCycle lastCycle,
                const CXRef<CXDispatchQueue>& queue);
    ~RingOffsets() override = default;

    void _read();
    void _set(const std::vector<double>& seconds);

    const CXRef<CXDispatchTimer> _timer;
    std::vector<CXRef<DXRDeviceNode>> _nodes;
    std::shared_ptr<const std::vector<Ring>> _rings; // one per node; set at creation
    const LastCycle _lastCycle;
    const CXRef<CXDispatchQueue> _queue;
    bool _isStopped CX_OWNED_BY_QUEUE(_queue) = false;
};
