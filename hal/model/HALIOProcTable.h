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

/// The IO callbacks of one device, and the cycle that calls them. The outputs of several callbacks are added.
/// Threads:   control functions from any thread, including IO threads; runCycle() on one IO thread at a time.
/// Real time: runCycle(), setTiming(), nominalSampleRate(), bufferFrameSize(), isOnIOThread().
/// Waits:     destroy() and stop() wait for a running cycle, except on the IO thread itself.
class DXR_EXPORT HALIOProcTable final : public CXObject {
public:
    /// The maximum number of callbacks; adding more returns 'nope'.
    static constexpr size_t maxProcs = 64;

    /// Creates the table of the device `deviceID`. Lost cycles are announced through `notifier`, which
    /// outlives the table's last cycle.
    static CXRef<HALIOProcTable> initWithDevice(AudioObjectID deviceID, HALNotifier& notifier);
    /// Creates a further table for the device of `other`, with its own cycles.
    static CXRef<HALIOProcTable> initBeside(const HALIOProcTable& other);

    // -- Control. On the IO thread, stop() takes no lock and destroy() has the callback freed on the global
    // queue.

    /// Registers a callback, stopped. Returns null if the table is full or closed.
    AudioDeviceIOProcID create(const AudioDeviceIOBlock& block);
    /// Removes a callback. Returns false if `procID` is unknown.
    bool destroy(AudioDeviceIOProcID procID);
    /// Makes cycles call the callback. Returns false if `procID` is unknown.
    bool start(AudioDeviceIOProcID procID);
    /// Makes cycles stop calling the callback. Returns false if it was not started.
    bool stop(AudioDeviceIOProcID procID);
    bool contains(AudioDeviceIOProcID procID) const;
    /// The number of started callbacks.
    size_t startedCount() const;
    /// Removes every callback and accepts no new ones, because the device has disappeared.
    void close();

    /// One word for each of `streamCount` streams of the direction, non-zero if the stream is used. Empty if
    /// `procID` is unknown.
    std::vector<uint32_t> streamUsage(AudioDeviceIOProcID procID, HALDirection direction,
                                      size_t streamCount) const;
    /// Sets which streams the callback uses. Streams beyond `usage` are off; those from the 1025th on are all
    /// on if any of them is. Returns false if `procID` is unknown.
    bool setStreamUsage(AudioDeviceIOProcID procID, HALDirection direction, std::span<const uint32_t> usage);

    /// Allocates buffers for cycles with the given streams (channels of each) and at most `maxFrames` frames.
    /// Waits for a running cycle. A cycle that runs meanwhile, or that does not fit, calls no callback and
    /// outputs silence.
    void prepare(std::span<const uint32_t> inputChannels, std::span<const uint32_t> outputChannels,
                 uint32_t maxFrames);
    /// Sets the values of 'nsrt' (Hz) and 'fsiz' that the IO thread reads without a lock.
    void setTiming(double nominalSampleRate, uint32_t bufferFrameSize) noexcept CX_REALTIME;

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
    /// Whether the calling thread is inside a cycle of this table. Cycles nest if one device's cycle runs
    /// another's.
    bool isOnIOThread() const noexcept CX_REALTIME;

    /// The table of `deviceID` whose cycle the calling thread is in; null outside such a cycle.
    static HALIOProcTable* onIOThreadOf(AudioObjectID deviceID) noexcept CX_REALTIME;

private:
    struct Proc;
    struct Layout;
    class ControlLock;

    HALIOProcTable(AudioObjectID deviceID, HALNotifier& notifier);
    ~HALIOProcTable() override;

    Proc* _find(AudioDeviceIOProcID procID) const;
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

    // Handshake between the IO thread and the control functions, which hold _mutex.
    // IO thread: makes _cycle odd; loads _layout and the slots; calls the callbacks; makes _cycle even and
    // wakes waiters. Control: removes the pointer from its slot (or replaces the layout); waits until _cycle
    // is even or has changed; only then frees the object.
    // Both sides are sequentially consistent: control stores before it loads _cycle, and the IO thread
    // increments _cycle before it loads the slots, so at least one of them sees the other's change.
    // The IO thread itself removes a pointer without the lock. A slot that it has read may then be empty or
    // hold another callback, so it removes only the pointer that it has read. The object of that pointer is
    // not freed before the cycle ends, so no other has its address.
    std::atomic<uint32_t> _cycle{0};
    std::atomic<Layout*> _layout{nullptr};
    std::array<std::atomic<Proc*>, maxProcs> _slots{};

    mutable std::mutex _mutex; // held by control functions, never by the IO thread
    bool _closed = false;
};
