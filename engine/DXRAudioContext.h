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
#include <set>

class RunnerIO;
class CXDispatchTimer;
struct CyclePlacement;

/// Runs the nodes of a runner from the IO callback of one audio device: a single device here, several as one in
/// DXRAudioAggregateContext, none in DXRAudioTimerContext. Where the device runs at another frame count or rate than
/// the runner, a converter stands between. A runner makes one, starts it once, and stops it before it lets it go.
/// Threads:   as work of the runner's queue; what never changes (deviceID, deviceUID, viableNodes, description) any.
///            The cycle is on the device's IO thread and counts as work of the queue: DXRAudioIOContext says how.
/// Real time: the cycle, but for the new converter after the device has changed its frame count or rate.
/// Owns:      the runner, which owns it, until it is stopped and let go.
/// Fails:     start() returns false, and the context then does nothing. A device that changes its streams stops and has
///            the runner start anew.
class DXR_EXPORT DXRAudioContext : public CXObject {
public:
    using Viables = std::set<CXRef<DXRDeviceNode>>;

    /// For one device: that of one of `viables`, one with the UID of `deviceUIDs` if there is any. `nodes` are the runner's
    /// own and live as long as `io`; `runner`, which may be null, is kept alive.
    static CXRef<DXRAudioContext> initWithIO(RunnerIO& io, const CXRef<CXObject>& runner,
                                             const DXRDeviceNodes& nodes, Viables viables,
                                             const std::vector<std::string>& deviceUIDs);

    /// The UIDs of the devices that it takes to run the `viables` among `nodes`, each once, in the order of the nodes.
    static std::vector<std::string> deviceUIDsOf(const DXRDeviceNodes& nodes, const Viables& viables);

    AudioObjectID deviceID() const noexcept { return _deviceID; } ///< 0 when there is none
    const std::string& deviceUID() const noexcept { return _deviceUID; }
    virtual DXRCycleRecord::Context kind() const noexcept CX_REALTIME
    {
        return DXRCycleRecord::Context::Device;
    }
    /// The nodes whose devices run in this context.
    const Viables& viableNodes() const noexcept { return _viables; }

    /// Starts IO; false, and error() says why, when it did not. A device that refuses the runner's frame count or rate is
    /// taken as it is.
    virtual bool start();
    const DXRDeviceRunnerError& error() const noexcept { return _error; }
    /// Ends IO; no node is called once it has returned. Nothing happens when there is none.
    virtual void stop();

    /// Of each viable node's device, inputs first; none before the first cycle.
    std::vector<DXRDeviceLatency> latencies() const;

    /// "<DXRAudioContext: address, (ID) UID>", the latter when there is a device.
    std::string description() const override;

protected:
    DXRAudioContext(RunnerIO& io, const CXRef<CXObject>& runner, const DXRDeviceNodes& nodes, Viables viables,
                    std::vector<std::string> deviceUIDs);
    ~DXRAudioContext() override;

    virtual const char* className() const { return "DXRAudioContext"; }

    // -- Steps of start(), as work of the queue

    virtual bool _frameCount(uint32_t* frameCount) const; ///< of the device; false when it does not say
    virtual bool _setFrameCount(uint32_t frameCount);
    virtual bool _sampleRate(double* sampleRate) const
        CX_REALTIME; ///< Hz; false when the device does not say
    virtual bool _setSampleRate(double sampleRate);
    /// For each channel of the node's device the context channel that carries it, from 1; 0 for none.
    std::vector<uint32_t> _channelMapForNode(const CXRef<DXRDeviceNode>& node) const;
    /// Starts the nodes, and reports to the runner at what rate and frame count. False, with an error, when a node's buffer
    /// cannot be made; none is started then.
    [[nodiscard]] bool _startIO();
    void _stopIO();

    /// The devices whose samples a node carries, of which the slowest counts for its latency.
    virtual std::vector<AudioObjectID> _devicesOfNode(const DXRDeviceNode& node) const;

    // -- Steps of a cycle

    /// One cycle whose first frame is at `sampleTime` of the device.
    virtual void _performIO(uint64_t sampleTime, const DXRStreamBuffers& buffers) CX_REALTIME;
    /// The frames of the first buffer that has data.
    static uint32_t _frameCountOf(const AudioBufferList* streamBuffers) CX_REALTIME;
    /// Whether the streams are those of `channelCounts`; a null list has none. Streams without channels do not count.
    static bool _hasStreams(const AudioBufferList* streamBuffers, std::span<const uint32_t> channelCounts)
        CX_REALTIME;
    /// Writes an entry for each channel, at most `room`; those of a buffer with less than `frameCount` frames are null.
    static void _sampleBuffers(DXRChannelEntry* entries, uint32_t room, uint32_t frameCount,
                               const AudioBufferList* streamBuffers) CX_REALTIME;

    AudioObjectID _deviceID = kAudioObjectUnknown; // both set as the context is made, and not changed after
    std::string _deviceUID;
    const DXRDeviceNodes& _nodes; // the runner's
    const Viables _viables;
    const CXRef<CXDispatchQueue> _queue; // the runner's
    RunnerIO& _io;                       // the runner's

private:
    /// What a context knows of the channels: of its device, and of each aggregate that a node wants, whose parts may come
    /// and go without a change of their devices' own.
    struct Layouts {
        ChannelLayout context;
        std::map<CXRef<DXRDeviceNode>, ChannelLayout>
            nodes; // viable ones on another device than the context's
        bool operator==(const Layouts& other) const = default;
    };

    /// What is read of an aggregate's rings for a node, in the order of the viable nodes.
    struct RingPart {
        bool isInput;
        std::vector<AudioObjectID> devices;
    };

    std::array<CyclePlacement, 2> _placements() const;
    void _followRings();
    void _lookAtRings();
    void _ringsAre(const std::vector<double>& seconds);
    void _stopFollowing();
    bool _fail(HALStatus status, std::string text);
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
    DXRAudioConverter* _converterFor(DXRAudioIOContext& record) const CX_REALTIME;
    void _performNodes(DXRAudioConverter* converter, const DXRChannelEntry* const samples[2],
                       const DXRCycleTimes& times) CX_REALTIME;
    static uint64_t _deadlineOf(const DXRAudioIOContext& record) noexcept CX_REALTIME;
    void _performTraced(DXRCycleTrace& trace, const DXRAudioIOContext& record, DXRAudioConverter* converter,
                        const DXRChannelEntry* const samples[2], const DXRCycleTimes& times) CX_REALTIME;

    const CXRef<CXObject> _runner;              // kept alive
    const std::vector<std::string> _deviceUIDs; // it was made for these
    DXRDeviceRunnerError _error;
    Layouts _layouts; // since start()
    std::vector<CXRef<DXRPropertyListener>> _layoutListeners;
    std::shared_ptr<const std::vector<RingPart>> _ringParts; // since _followRings()
    CXRef<CXDispatchTimer> _ringTimer;                       // while the device is an aggregate that runs
    CXRef<DXRAudioIOContext> _iocontext CX_OWNED_BY_QUEUE(_queue); // null while no callback is installed
};
