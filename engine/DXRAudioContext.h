#pragma once

#include "AudioHardware.h"
#include "ChannelLayout.h"
#include "DXRAudioIOContext.h"
#include "DXRCycleTrace.h"
#include "DXRDeviceLatency.h"
#include "DXRDeviceNode.h"
#include "DXRDeviceRunnerError.h"

#include <array>
#include <map>
#include <memory>
#include <optional>
#include <set>

class RunnerIO;
class RingOffsets;
struct CyclePlacement;

/// Runs the nodes of a runner from the IO callback of one audio device: this class for a single device,
/// DXRAudioAggregateContext for several devices combined, DXRAudioTimerContext without a device. If the
/// device's frame count or rate differs from the runner's, a converter is used. A runner creates a context,
/// starts it once, and stops it before releasing it.
/// Threads:   as work of the runner's queue. Any thread may read what never changes (deviceID, deviceUID,
///            viableNodes, description). A cycle runs on the device's IO thread and counts as work of the
///            queue: see DXRAudioIOContext.
/// Real time: the cycle, except the construction of a converter after the device has changed its frame count
///            or rate.
/// Owns:      the runner, which owns the context, until the runner stops and releases it.
/// Fails:     start() returns false, and the context then does nothing. If the device's streams change, the
///            context stops and asks the runner for a new one.
class DXR_EXPORT DXRAudioContext : public CXObject {
public:
    using Viables = std::set<CXRef<DXRDeviceNode>>;

    /// A context for one device: the device of one of `viables`, preferably one whose UID is in `deviceUIDs`.
    /// `nodes` belong to the runner and live as long as `io`; `runner`, which may be null, is kept alive.
    static CXRef<DXRAudioContext> initWithIO(RunnerIO& io, const CXRef<CXObject>& runner,
                                             const DXRDeviceNodes& nodes, Viables viables,
                                             const std::vector<std::string>& deviceUIDs);

    /// The UIDs of the devices needed to run the `viables` among `nodes`, without duplicates, in the order of
    /// the nodes.
    static std::vector<std::string> deviceUIDsOf(const DXRDeviceNodes& nodes, const Viables& viables);

    AudioObjectID deviceID() const noexcept { return _deviceID; } ///< 0 without a device
    const std::string& deviceUID() const noexcept { return _deviceUID; }
    virtual DXRCycleRecord::Context kind() const noexcept CX_REALTIME
    {
        return DXRCycleRecord::Context::Device;
    }
    /// The nodes whose devices run in this context.
    const Viables& viableNodes() const noexcept { return _viables; }

    /// Starts IO. Returns false if it cannot; error() then has the reason. If the device refuses the runner's
    /// frame count or rate, it runs at its own.
    virtual bool start();
    const DXRDeviceRunnerError& error() const noexcept { return _error; }
    /// Ends IO: no node is called after it has returned. Does nothing if IO is not running.
    virtual void stop();

    /// The latency of each viable node's device, inputs first; empty before the first cycle. An aggregate
    /// none of whose parts carries a channel has none.
    std::vector<DXRDeviceLatency> latencies() const;

    /// "<DXRAudioContext: address, (ID) UID>"; without a device only the address.
    std::string description() const override;

protected:
    DXRAudioContext(RunnerIO& io, const CXRef<CXObject>& runner, const DXRDeviceNodes& nodes, Viables viables,
                    std::vector<std::string> deviceUIDs);
    ~DXRAudioContext() override;

    virtual const char* className() const { return "DXRAudioContext"; }

    // -- Steps of start(), as work of the queue

    virtual bool _frameCount(uint32_t* frameCount) const; ///< the device's; false if unknown
    virtual bool _setFrameCount(uint32_t frameCount);
    virtual bool _sampleRate(double* sampleRate) const CX_REALTIME; ///< Hz; false if unknown
    virtual bool _setSampleRate(double sampleRate);
    /// For each channel of the node's device: the number, from 1, of the context channel that carries it; 0
    /// for none.
    std::vector<uint32_t> _channelMapForNode(const CXRef<DXRDeviceNode>& node) const;
    /// Starts the nodes, and reports the rate and frame count in effect to the runner. Returns false, sets
    /// the error, and leaves all nodes stopped if a node's buffer or the converter cannot be allocated.
    [[nodiscard]] bool _startIO();
    void _stopIO();

    /// The devices whose samples a node carries. The slowest of them determines the node's latency.
    virtual std::vector<AudioObjectID> _devicesOfNode(const DXRDeviceNode& node) const;

    // -- Steps of a cycle

    /// One cycle; `sampleTime` is the device's sample time at its first frame.
    virtual void _performIO(uint64_t sampleTime, const DXRStreamBuffers& buffers) CX_REALTIME;

    AudioObjectID _deviceID = kAudioObjectUnknown; // both are set at creation and do not change afterwards
    std::string _deviceUID;
    const DXRDeviceNodes& _nodes; // the runner's
    const Viables _viables;
    const CXRef<CXDispatchQueue> _queue; // the runner's
    RunnerIO& _io;                       // the runner's

private:
    /// The channels of the context's device, and those of each aggregate that a node uses: the parts of an
    /// aggregate may appear and disappear while the context's own device does not change.
    struct Layouts {
        ChannelLayout context;
        std::map<CXRef<DXRDeviceNode>, ChannelLayout>
            nodes;     // viable nodes on a device other than the context's
        bool isSilent; // whether the context's device is an aggregate of a node without any part
        bool operator==(const Layouts& other) const = default;
    };

    /// The last cycle's, for input and output; empty if there was none or its rate could not be read.
    std::optional<std::array<CyclePlacement, 2>> _placements() const;
    void _followRings();
    void _stopFollowing();
    bool _fail(HALStatus status, const std::string& text);
    CXRef<DXRAudioIOContext> _makeRecord();
    void _readStreams(DXRAudioIOContext& record) const;
    Layouts _readLayouts() const;
    void _followLayouts();
    void _lookAtLayouts();
    void _listenForRate(DXRAudioIOContext& record) const;
    void _askForFormat();
    struct Stamps {
        const AudioTimeStamp *now, *input, *output;
    };
    static void _callback(DXRAudioContext& context, DXRAudioIOContext& record, const Stamps& stamps,
                          const DXRStreamBuffers& buffers) noexcept CX_REALTIME;
    static void _takeTurn(DXRAudioContext& context, DXRAudioIOContext& record, bool isHere) noexcept
        CX_REALTIME;
    static void _endLater(const CXRef<DXRAudioIOContext>& record, AudioObjectID deviceID);
    static void _endCallback(DXRAudioIOContext& record, AudioObjectID deviceID);

    bool _followRate(DXRAudioIOContext& record, uint64_t sampleTime, double* sampleRate) const noexcept
        CX_REALTIME;
    void _leaveForNewLayout(DXRAudioIOContext& record) CX_REALTIME;
    bool _makeConverter(DXRAudioIOContext& record, double sampleRate, uint32_t frameCount) const noexcept
        CX_REALTIME;
    void _performNodes(DXRAudioConverter* converter, const DXRChannelEntry* const samples[2],
                       const DXRCycleTimes& times) CX_REALTIME;
    static DXRCycleTimes _timesOf(DXRAudioIOContext& record) noexcept CX_REALTIME;
    static uint64_t _deadlineOf(const DXRAudioIOContext& record) noexcept CX_REALTIME;
    void _performTraced(DXRCycleTrace& trace, const DXRAudioIOContext& record, DXRAudioConverter* converter,
                        const DXRChannelEntry* const samples[2], const DXRCycleTimes& times) CX_REALTIME;

    const CXRef<CXObject> _runner;              // kept alive
    const std::vector<std::string> _deviceUIDs; // the devices the context was made for
    DXRDeviceRunnerError _error;
    Layouts _layouts; // as read by start()
    std::vector<CXRef<DXRPropertyListener>> _layoutListeners;
    CXRef<RingOffsets> _ringOffsets;                               // while an aggregate runs
    CXRef<DXRAudioIOContext> _iocontext CX_OWNED_BY_QUEUE(_queue); // null while no callback is installed
};
