#pragma once

#include "CXDispatchQueue.h"
#include "CXDispatchTimer.h"
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

class DXRAudioContext;
class RunnerIO;

/// Runs audio on one or several devices at once, at one frame count and sample rate: the application adds devices, each
/// with the channels it wants and a block that is called once a cycle, and starts. Devices may be absent, come and go,
/// or run at another frame count or rate; the blocks are called all the same, by a timer when no device is there at all.
///
/// Where neither was asked for, frame count and rate are those of the devices that IO starts with, 512 frames at
/// 44100 Hz without any, and stay until stop().
/// Observable keys, by kvo(): frameCount, sampleRate, devices, activeDevices, isRunning, error.
/// Threads:   any. What changes the runner waits for its queue; on the queue, that is from IO blocks and from its
///            notifiers, it asserts, except stop(), which then takes effect a little later, setNotifier() and the device
///            notifiers. Waiting for the queue while holding DXRDeviceManager::lock() can deadlock. Observers are called on
///            the main thread.
/// Real time: sampleTime(), and stop() from an IO block. IO blocks are called on the IO thread of a device, or on the
///            queue, one at a time.
/// Owns:      its devices' nodes, and while it runs itself: stop it before letting it go.
/// Fails:     what cannot be done returns false. A device that refuses to start leaves the runner without IO and with an
///            error(); it is tried again after 0.1 s, then after pauses that double up to 10 s, and when devices change.
class DXR_EXPORT DXRDeviceRunner final : public CXObject {
public:
    using Devices = DXRDeviceManagerNotifier::Devices;
    using Channels = DXRDeviceNode::Channels;
    enum class Direction { Input, Output };
    using Notifier = CXBlock<void()>;
    using DeviceNotifier = DXRDeviceManagerNotifier::Block;
    static constexpr uint32_t maxFrames = DXRDeviceNode::maxFrames; ///< of a cycle

    /// Null when no thread can be created.
    static CXRef<DXRDeviceRunner> init();

    // -- Frame count and rate, in effect while it runs, else as asked for

    uint32_t frameCount() const; ///< frames a cycle; 0 when nothing was asked for and it does not run
    double sampleRate() const;   ///< Hz; 0.0 as above
    /// False while it runs, and for more than maxFrames. 0 leaves it to the devices.
    bool setFrameCount(uint32_t frameCount);
    /// False while it runs, and for what is no rate (QDLAudioDeviceSampleRateIsValid()) but 0.0, which leaves it to the
    /// devices.
    bool setSampleRate(double sampleRate);

    /// How rates are converted where a device does not run at the runner's; Standard at first. False while it runs.
    bool setConversionQuality(DXRConversionQuality quality);
    DXRConversionQuality conversionQuality() const noexcept CX_REALTIME;

    // -- Devices

    /// Adds a device with the block that is called for it; `channels`, from 1, are its preferred stereo channels if not
    /// given. A running runner stops for a moment. False without a device or block, when the device is there already, and
    /// for more than DXRDeviceNode::maxSamples in one cycle.
    bool addDevice(const CXRef<DXRDevice>& device, const std::optional<Channels>& channels,
                   const DXRIOBlock& ioblock);
    /// Adds the default device of a direction: when the default changes, the runner changes over, and the sample
    /// time goes on. Where there is none, or the new one was added by itself, the block stays with the last one; it is
    /// first called when there has been a default device. False without a block, and when it is followed already.
    bool addDefaultDevice(Direction direction, const std::optional<Channels>& channels,
                          const DXRIOBlock& ioblock);
    void removeDefaultDevice(Direction direction);
    /// Nothing happens when it is not there, or is there as the default device.
    void removeDevice(const CXRef<DXRDevice>& device);
    Devices devices() const;
    /// Those that run now.
    Devices activeDevices() const;

    // -- Running

    bool isRunning() const;
    /// Why there is no IO; an empty one when there is nothing wrong.
    DXRDeviceRunnerError error() const;
    /// Nothing happens when it runs already.
    void start();
    /// No block is called once it has returned; called on the queue, it takes effect a little later. Nothing happens when
    /// it does not run.
    void stop();
    /// Frames since start(), of the next cycle; 0 when stopped.
    uint64_t sampleTime() const noexcept CX_REALTIME;

    /// What has happened since start(). Never waits for the queue; from an IO block, too, where it allocates.
    DXRRunnerCounts counts() const;

    /// How long each device that runs keeps samples between its block and the air, as of the last cycle, inputs first;
    /// none until a first cycle has run. An aggregate's is that of its slowest part. Waits for the queue.
    std::vector<DXRDeviceLatency> latencies() const;
    /// What is heard by `input` and given to `output` in the same cycle is in the air again after so many seconds. Nothing
    /// where one of them does not run.
    std::optional<double> roundTripSeconds(const CXRef<DXRDevice>& input,
                                           const CXRef<DXRDevice>& output) const;

    // -- Following

    /// Calls `block` whenever something observable has changed: on `queue`, or on the runner's own without one. Replaces
    /// the one before; an empty block is none.
    void setNotifier(const CXRef<dxr::WorkQueue>& queue, const Notifier& block);
    /// Calls `block` on the runner's queue when devices of the computer come, go or change, as a notifier of the device
    /// manager would be. The same block is added once. Never called after its removal.
    void addDeviceNotifier(const DeviceNotifier& block);
    void removeDeviceNotifier(const DeviceNotifier& block);
    /// A listener, not started, that calls `block` on the runner's queue. The caller keeps it.
    CXRef<DXRPropertyListener> propertyListenerWithObjectID(AudioObjectID objectID,
                                                            const AudioObjectPropertyAddress* addr,
                                                            const CXRef<CXObject>& target,
                                                            const DXRPropertyListener::Block& block);
    /// Has every cycle and every change of context written to `trace` from now on, instead of to the one before; null is
    /// none. Where a context runs, the trace begins with its start. False, and nothing changes, when another runner has
    /// it. Not from an IO block.
    bool setCycleTrace(const CXRef<DXRCycleTrace>& trace);
    const CXRef<DXRKVOHelper>& kvo() const noexcept { return _kvo; }
    const CXRef<CXDispatchQueue>& queue() const noexcept { return _queue; }

private:
    struct DeviceNotifierEntry {
        DeviceNotifier block;   // the caller's
        DeviceNotifier wrapper; // what the manager has
    };

    explicit DXRDeviceRunner(CXRef<CXDispatchQueue> queue);
    ~DXRDeviceRunner() override;

    static std::span<const DXRKVOProperty> _observableProperties() noexcept;

    template <class Value> bool _request(std::atomic<Value>& requested, Value value, const char* key);

    void _start() CX_ON_QUEUE(_queue);
    CXRef<DXRAudioContext> _newContext() CX_ON_QUEUE(_queue);
    void _countContext(bool isRunning) CX_ON_QUEUE(_queue);
    void _contextLostLayout(const CXObject& context);
    void _traceContext(DXRCycleRecord::Event event, uint64_t beginTicks) CX_ON_QUEUE(_queue);
    void _stop() CX_ON_QUEUE(_queue);
    void _stopRunning();
    void _stopDispatchStart(DXRRunnerCounts::Restart reason, CXBlockRef<void()> block);
    bool _shouldRestartForDevicesConnected(const Devices& connected, const Devices& disconnected) const
        CX_ON_QUEUE(_queue);
    void _devicesChanged(const Devices& connected, const Devices& disconnected);
    /// A default device that is followed.
    struct FollowedDefault {
        std::optional<Channels> channels;
        DXRIOBlock ioblock;
        CXRef<DXRDeviceNode> node; // null until there has been a default device
        CXRef<DXRPropertyListener> listener;
    };
    void _followDefaults();
    void _followDefault(size_t direction);
    bool _isDefaultNode(const CXRef<DXRDeviceNode>& node) const CX_ON_QUEUE(_queue);

    CXRef<DXRDeviceNode> _nodeForDevice(const CXRef<DXRDevice>& device, size_t* index) const;
    DeviceNotifierEntry* _notifierEntry(const DeviceNotifier& block);
    DeviceNotifier _wrapped(const DeviceNotifier& block);
    void _propertiesChanged();
    std::string _stateSignature() const CX_ON_QUEUE(_queue);
    bool _isViable(const CXRef<DXRDeviceNode>& node) const CX_ON_QUEUE(_queue);
    /// Viable, and its context has started.
    bool _isActive(const CXRef<DXRDeviceNode>& node) const CX_ON_QUEUE(_queue)
    {
        return !_error && _isViable(node);
    }
    void _retryLater() CX_ON_QUEUE(_queue);

    const CXRef<DXRKVOHelper> _kvo;
    // The values last reported to observers; written and read on the main thread.
    uint32_t _kvo_frameCount = 0;
    double _kvo_sampleRate = 0.0;
    std::optional<Devices> _kvo_devices;
    std::optional<Devices> _kvo_activeDevices;
    bool _kvo_isRunning = false;
    DXRDeviceRunnerError _kvo_error;

    const CXRef<CXDispatchQueue> _queue;
    // Everything below is changed as work of the queue. What getters and cycles read too is atomic, each for itself.
    CXRef<dxr::WorkQueue> _notifierQueue CX_OWNED_BY_QUEUE(_queue);
    Notifier _notifierBlock CX_OWNED_BY_QUEUE(_queue);
    const std::unique_ptr<RunnerIO> _io; // shared with the contexts
    std::atomic<bool> _running{false};
    DXRCycleRecord::Event _contextState = DXRCycleRecord::Event::ContextStopped; // of the last one
    DXRDeviceNodes _nodes; // not changed while a context has them
    std::array<std::optional<FollowedDefault>, 2>
        _followedDefaults CX_OWNED_BY_QUEUE(_queue);            // input, output
    DeviceNotifier _defaultsNotifier CX_OWNED_BY_QUEUE(_queue); // a default device may be new to the manager
    std::string _signature CX_OWNED_BY_QUEUE(_queue);           // of the state last published
    std::vector<DeviceNotifierEntry> _deviceNotifierMap CX_OWNED_BY_QUEUE(_queue);
    DeviceNotifier _deviceNotifier CX_OWNED_BY_QUEUE(_queue);  // the runner's own; empty while stopped
    CXRef<DXRAudioContext> _context CX_OWNED_BY_QUEUE(_queue); // null while stopped
    /// What counts() reads of the context that runs, if one does.
    struct CountedContext {
        DXRCycleRecord::Context kind = DXRCycleRecord::Context::None;
        AudioObjectID deviceID = kAudioObjectUnknown;
        std::string deviceUID;
    };
    mutable std::mutex _countsMutex; // nothing else happens under it
    CountedContext _countedContext;  // under the mutex, changed as work of the queue
    std::atomic<DXRRunnerCounts::Restart> _lastRestart{DXRRunnerCounts::Restart::None};
    DXRDeviceRunnerError _error CX_OWNED_BY_QUEUE(_queue);        // of the last start of a context
    CXRef<CXDispatchTimer> _retryTimer CX_OWNED_BY_QUEUE(_queue); // null unless a start has failed
    uint32_t _retryMilliseconds CX_OWNED_BY_QUEUE(_queue) = 0;    // the last pause; 0: none has failed
    CXDispatchQueue::Work _stopWork; // made beforehand: an IO block may call stop()
};
