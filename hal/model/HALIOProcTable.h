#pragma once

#include "HALCycle.h"
#include "HALDirection.h"
#include "HALIOEvent.h"

#include <array>
#include <atomic>
#include <memory>
#include <mutex>
#include <span>
#include <vector>

class HALNotifier;

/// The IO callbacks of one device, and the cycle that calls them. Outputs of several callbacks are added.
/// Threads:   control functions from any thread, IO threads included. runCycle() on one IO thread at a time.
/// Real time: runCycle(), nominalSampleRate(), bufferFrameSize(), isOnIOThread().
/// Waits:     destroy() and stop() for a running cycle, except on the IO thread itself.
class DXR_EXPORT HALIOProcTable final : public CXObject {
public:
    /// Room for callbacks; beyond that, adding one returns 'nope'.
    static constexpr size_t maxProcs = 64;

    /// For the device `deviceID`, whose lost cycles are announced through `notifier`, which outlives the
    /// table's last cycle.
    static CXRef<HALIOProcTable> initWithDevice(AudioObjectID deviceID, HALNotifier& notifier);
    /// A further table for the device of `other`, with cycles of its own.
    static CXRef<HALIOProcTable> initBeside(const HALIOProcTable& other);

    // -- Control. On the IO thread itself, stop() takes no lock, and destroy() hands the callback to the global queue.

    /// Registers a callback, stopped. Null when the table is full or closed.
    AudioDeviceIOProcID create(const AudioDeviceIOBlock& block);
    /// Forgets a callback. False when there is none of that name.
    bool destroy(AudioDeviceIOProcID procID);
    /// Lets cycles call it. False when there is no callback of that name.
    bool start(AudioDeviceIOProcID procID);
    /// Lets them call it no longer. False when it was not started.
    bool stop(AudioDeviceIOProcID procID);
    bool contains(AudioDeviceIOProcID procID) const;
    /// How many callbacks are started.
    size_t startedCount() const;
    /// Forgets every callback, and takes no new ones: the device is gone.
    void close();

    /// One word for each of `streamCount` streams of the direction, non-zero for used. Empty when there is no
    /// callback of that name.
    std::vector<uint32_t> streamUsage(AudioDeviceIOProcID procID, HALDirection direction,
                                      size_t streamCount) const;
    /// Streams beyond `usage` are off; streams from the 65th are always on. False when there is no callback
    /// of that name.
    bool setStreamUsage(AudioDeviceIOProcID procID, HALDirection direction, std::span<const uint32_t> usage);

    /// Makes room for cycles of the given streams (channels of each) and at most `maxFrames` frames. Waits
    /// for a running cycle; a cycle that comes meanwhile, or does not fit, calls no callback and leaves
    /// silence.
    void prepare(std::span<const uint32_t> inputChannels, std::span<const uint32_t> outputChannels,
                 uint32_t maxFrames);
    /// The values of 'nsrt' (Hz) and 'fsiz' that the IO thread reads without a lock.
    void setTiming(double nominalSampleRate, uint32_t bufferFrameSize) noexcept;

    // -- The IO thread

    /// Calls every started callback, in the order they were created.
    void runCycle(const HALCycle& cycle) noexcept CX_REALTIME;
    /// Announces that cycles were lost.
    void reportOverload() noexcept CX_REALTIME;

    double nominalSampleRate() const noexcept CX_REALTIME
    {
        return _sampleRate.load(std::memory_order_relaxed);
    }
    uint32_t bufferFrameSize() const noexcept CX_REALTIME
    {
        return _frameSize.load(std::memory_order_relaxed);
    }
    /// Whether the calling thread is inside a cycle of this table. Cycles nest where one device drives
    /// another.
    bool isOnIOThread() const noexcept CX_REALTIME;

    /// The table of `deviceID` whose cycle the calling thread is in; null outside.
    static HALIOProcTable* onIOThreadOf(AudioObjectID deviceID) noexcept CX_REALTIME;

private:
    struct Proc;
    struct Layout;
    class ControlLock;

    HALIOProcTable(AudioObjectID deviceID, HALNotifier& notifier);
    ~HALIOProcTable() override;

    Proc* _find(AudioDeviceIOProcID procID) const;
    size_t _slotOf(AudioDeviceIOProcID procID) const;
    void _waitForCycle() const noexcept;
    void _retire(std::unique_ptr<Proc> proc);
    void _callProcs(const HALCycle& cycle, Layout& layout) noexcept CX_REALTIME;
    static void _call(const Proc& proc, const HALCycle& cycle, Layout& layout, bool intoScratch) noexcept
        CX_REALTIME;

    struct Running;
    static thread_local const Running* running; // the innermost cycle of this thread

    HALNotifier& _notifier;
    const CXRef<HALIOEvent> _overload;
    std::atomic<double> _sampleRate{0.0};
    std::atomic<uint32_t> _frameSize{0};

    // Handshake between the IO thread and control, which holds _mutex.
    // IO thread: _cycle becomes odd; reads _layout and the slots; calls; _cycle becomes even and wakes
    // waiters. Control: takes the pointer out of its slot (or the layout); waits until _cycle is even or has
    // moved on; only then frees the object.
    // Both sides are sequentially consistent: control's store comes before its load of _cycle, the IO
    // thread's increment before its load of the slots, so at least one of them sees the other.
    std::atomic<uint32_t> _cycle{0};
    std::atomic<Layout*> _layout{nullptr};
    std::array<std::atomic<Proc*>, maxProcs> _slots{};

    mutable std::mutex _mutex; // control side only
    bool _closed = false;
};
