#pragma once

#include "CXDispatchQueue.h"
#include "DXRConversionQuality.h"
#include "DXRCycleTrace.h"
#include "DXRDeviceLatency.h"
#include "DXRDeviceManagerNotifier.h"
#include "DXRDeviceNode.h"
#include "DXRDeviceRunnerError.h"
#include "DXRKVOHelper.h"
#include "DXRPropertyListener.h"
#include "DXRRunnerCounts.h"

#include <atomic>
#include <memory>
#include <mutex>
#include <set>

class CountedContext;
class DXRAudioContext;
class RetryTimer;
class RunnerDeviceNotifiers;
class RunnerIO;

/// Runs audio on one or several devices at once, at one frame count and sample rate: the application adds
/// devices, each with the channels it uses and a block that is called once a cycle, and starts the runner.
/// Devices may be absent, appear, disappear, or run at another frame count or rate; the blocks are still
/// called, by a timer if no device is connected.
///
/// A frame count or rate that was not requested is taken from the devices that IO starts with, or is 512
/// frames or 44100 Hz without a device, and stays in effect until stop().
/// Observable keys, by kvo(): frameCount, sampleRate, devices, activeDevices, isRunning, error.
/// Threads:   any. Functions that change the runner wait for its queue and must not be called on it (from an
///            IO block or a notifier): they assert. stop() may be, and takes effect shortly after;
///            setNotifier() and the device notifier functions may be, too. Waiting for the queue while
///            holding DXRDeviceManager::lock() can deadlock. Observers are called on the main thread.
/// Real time: sampleTime(), and stop() from an IO block. IO blocks are called one at a time, on the IO thread
///            of a device or on the queue.
/// Owns:      the nodes of its devices, and itself while it runs: call stop() before releasing it.
/// Fails:     functions return false if they cannot do their work. If a device refuses to start, the runner
///            has no IO and an error(); it tries again after 0.1 s, then after pauses that double up to 10 s,
///            and when devices change.
class DXR_EXPORT DXRDeviceRunner final : public CXObject {
public:
    using Devices = DXRDeviceManagerNotifier::Devices;
    using Channels = DXRDeviceNode::Channels;
    enum class Direction { Input, Output };
    using Notifier = CXBlock<void()>;
    using DeviceNotifier = DXRDeviceManagerNotifier::Block;
    static constexpr uint32_t maxFrames = DXRDeviceNode::maxFrames; ///< frames in a cycle

    /// Null when no thread can be created.
    static CXRef<DXRDeviceRunner> init();

    // -- Frame count and rate: in effect while the runner runs, otherwise as requested

    uint32_t frameCount() const; ///< frames per cycle; 0 if none was requested and the runner is stopped
    double sampleRate() const;   ///< Hz; 0.0 if none was requested and the runner is stopped
    /// Returns false while the runner runs, or if `frameCount` exceeds maxFrames. 0 leaves the choice to the
    /// devices.
    bool setFrameCount(uint32_t frameCount);
    /// Returns false while the runner runs, or if `sampleRate` is invalid
    /// (QDLAudioDeviceSampleRateIsValid()). 0.0 leaves the choice to the devices.
    bool setSampleRate(double sampleRate);

    /// The quality of rate conversion for devices that do not run at the runner's rate; initially Standard.
    /// Returns false while the runner runs.
    bool setConversionQuality(DXRConversionQuality quality);
    DXRConversionQuality conversionQuality() const noexcept CX_REALTIME;

    // -- Devices

    /// Adds a device with the block to call for it. `channels`, from 1, default to the device's preferred
    /// stereo channels. A running runner pauses briefly. Returns false if `device` or `ioblock` is null, if
    /// the device was already added, or if a cycle would exceed DXRDeviceNode::maxSamples.
    bool addDevice(const CXRef<DXRDevice>& device, const std::optional<Channels>& channels,
                   const DXRIOBlock& ioblock);
    /// Adds the default device of a direction: when the default changes, the runner changes to the new device
    /// and the sample time continues. If the new default does not exist or was added with addDevice(), the
    /// block stays with the previous device until the new one exists or removeDevice() removes it; it is
    /// first called when a default device exists. If the default cannot be read, it is read again after
    /// 0.1 s, then after pauses that double up to 10 s. Returns false if `ioblock` is null or the direction's
    /// default was already added.
    bool addDefaultDevice(Direction direction, const std::optional<Channels>& channels,
                          const DXRIOBlock& ioblock);
    void removeDefaultDevice(Direction direction);
    /// Returns false if the device was not added, or only as the default device.
    bool removeDevice(const CXRef<DXRDevice>& device);
    Devices devices() const;
    /// The devices that run now.
    Devices activeDevices() const;

    // -- Running

    bool isRunning() const;
    /// Why the runner has no IO; an empty error if nothing is wrong.
    DXRDeviceRunnerError error() const;
    /// Does nothing if the runner is running.
    void start();
    /// No block is called after it has returned. Called on the queue, it takes effect shortly after. Does
    /// nothing if the runner is stopped.
    void stop();
    /// Frames since start(), at the next cycle; 0 while stopped.
    uint64_t sampleTime() const noexcept CX_REALTIME;

    /// Counts since start(). Never waits for the queue. May be called from an IO block, but allocates.
    DXRRunnerCounts counts() const;

    /// The time that samples take between the block of each running device and the air, as of the last cycle,
    /// inputs first; empty before the first cycle. An aggregate has the latency of its slowest part, and none
    /// without a part. Waits for the queue.
    std::vector<DXRDeviceLatency> latencies() const;
    /// The time, in seconds, from the air to `input`, through one cycle, to `output` and into the air again.
    /// Empty if either device does not run.
    std::optional<double> roundTripSeconds(const CXRef<DXRDevice>& input,
                                           const CXRef<DXRDevice>& output) const;

    // -- Notifications

    /// Calls `block` after every change of an observable key, except by setFrameCount() and setSampleRate():
    /// on `queue`, or on the runner's own queue if it is null. Replaces the previous notifier; an empty block
    /// removes it.
    void setNotifier(const CXRef<dxr::WorkQueue>& queue, const Notifier& block);
    /// Calls `block` on the runner's queue when devices of the computer appear, disappear or change, like a
    /// notifier of the device manager. Adding a block twice has no effect. The block is not called after its
    /// removal.
    void addDeviceNotifier(const DeviceNotifier& block);
    void removeDeviceNotifier(const DeviceNotifier& block);
    /// Returns a listener, not yet started, that calls `block` on the runner's queue. The caller must keep
    /// it.
    CXRef<DXRPropertyListener> propertyListenerWithObjectID(AudioObjectID objectID,
                                                            const AudioObjectPropertyAddress* addr,
                                                            const CXRef<CXObject>& target,
                                                            const DXRPropertyListener::Block& block);
    /// Writes a record of every cycle and every change of context to `trace` from now on, in place of the
    /// previous trace; null stops tracing. If a context is running, the first record is its start. Returns
    /// false and changes nothing if another runner uses the trace. Not from an IO block.
    bool setCycleTrace(const CXRef<DXRCycleTrace>& trace);
    const CXRef<DXRKVOHelper>& kvo() const noexcept { return _kvo; }
    const CXRef<CXDispatchQueue>& queue() const noexcept { return _queue; }

private:
    explicit DXRDeviceRunner(CXRef<CXDispatchQueue> queue);
    ~DXRDeviceRunner() override;

    static std::span<const DXRKVOProperty> _observableProperties() noexcept;

    template <class Value> bool _request(std::atomic<Value>& requested, Value value, const char* key);

    void _start() CX_ON_QUEUE(_queue);
    CXRef<DXRAudioContext> _newContext() CX_ON_QUEUE(_queue);
    void _contextLostLayout(const CXObject& context);
    void _traceContext(DXRCycleRecord::Event event, uint64_t beginTicks) CX_ON_QUEUE(_queue);
    void _stop() CX_ON_QUEUE(_queue);
    void _stopRunning();
    void _stopDispatchStart(DXRRunnerCounts::Restart reason, CXBlockRef<void()> block);
    bool _shouldRestartForDevicesConnected(const Devices& connected, const Devices& disconnected) const
        CX_ON_QUEUE(_queue);
    void _devicesChanged(const Devices& connected, const Devices& disconnected);
    /// A default device added by addDefaultDevice().
    struct FollowedDefault {
        std::optional<Channels> channels;
        DXRIOBlock ioblock;
        CXRef<DXRDeviceNode> node; // null before a default device exists
    };
    void _followDefaults();
    void _tryToFollowDefaults();
    [[nodiscard]] bool _followDefault(size_t direction);
    bool _isDefaultNode(const CXRef<DXRDeviceNode>& node) const CX_ON_QUEUE(_queue);

    CXRef<DXRDeviceNode> _nodeForDevice(const CXRef<DXRDevice>& device, size_t* index) const;
    void _propertiesChanged();
    std::string _stateSignature() const CX_ON_QUEUE(_queue);
    bool _isViable(const CXRef<DXRDeviceNode>& node) const CX_ON_QUEUE(_queue);
    /// Viable, and the context has started.
    bool _isActive(const CXRef<DXRDeviceNode>& node) const CX_ON_QUEUE(_queue)
    {
        return !_error && _isViable(node);
    }
    void _retryLater() CX_ON_QUEUE(_queue);

    const CXRef<DXRKVOHelper> _kvo;
    // The values last announced to observers; accessed on the main thread only.
    uint32_t _kvo_frameCount = 0;
    double _kvo_sampleRate = 0.0;
    std::optional<Devices> _kvo_devices;
    std::optional<Devices> _kvo_activeDevices;
    bool _kvo_isRunning = false;
    DXRDeviceRunnerError _kvo_error;

    const CXRef<CXDispatchQueue> _queue;
    // Everything below is changed as work of the queue. Values that getters and cycles also read are atomic,
    // each on its own.
    CXRef<dxr::WorkQueue> _notifierQueue CX_OWNED_BY_QUEUE(_queue);
    Notifier _notifierBlock CX_OWNED_BY_QUEUE(_queue);
    const std::unique_ptr<RunnerIO> _io; // shared with the contexts
    const std::unique_ptr<RunnerDeviceNotifiers> _deviceNotifiers;
    std::atomic<bool> _running{false};
    DXRCycleRecord::Event _contextState = DXRCycleRecord::Event::ContextStopped; // the last context's
    DXRDeviceNodes _nodes; // not changed while a context uses them
    std::array<std::optional<FollowedDefault>, 2>
        _followedDefaults CX_OWNED_BY_QUEUE(_queue);            // input, output
    DeviceNotifier _defaultsNotifier CX_OWNED_BY_QUEUE(_queue); // empty if no default device was added
    std::string _signature CX_OWNED_BY_QUEUE(_queue);           // of the last published state
    DeviceNotifier _deviceNotifier CX_OWNED_BY_QUEUE(_queue);   // the runner's own; empty while stopped
    CXRef<DXRAudioContext> _context CX_OWNED_BY_QUEUE(_queue);  // null while stopped
    const std::unique_ptr<CountedContext> _countedContext;      // changed as work of the queue
    std::atomic<DXRRunnerCounts::Restart> _lastRestart{DXRRunnerCounts::Restart::None};
    DXRDeviceRunnerError _error CX_OWNED_BY_QUEUE(_queue); // of the last attempt to start a context
    const std::unique_ptr<RetryTimer> _startRetry;         // after a start that failed
    const std::unique_ptr<RetryTimer> _defaultsRetry;      // after a default device could not be read
    CXDispatchQueue::Work _stopWork; // allocated in advance, because an IO block may call stop()
};
