#pragma once

#include "AudioHardware.h"
#include "CXDispatchQueue.h"
#include "DXRAudioConverter.h"
#include "DXRPropertyListener.h"

#include <atomic>
#include <limits>
#include <memory>
#include <optional>

class DeviceClock;

/// The lists of one cycle, null for a direction without data.
struct DXRStreamBuffers {
    const AudioBufferList* input;
    const AudioBufferList* output;
};

/// What belongs to one installed IO callback, from its start to its end. The callback holds it; the context does while
/// it is its current one.
///
/// The handshake between cycles, on the device's IO thread, and start and stop, as work of the runner's queue:
///
///   start   raises `unsafe`, installs the callback, starts the device, and lowers it when the context is ready
///   cycle   (1) raises `unsafe` if it is 0, else is over. Not for a moment either way: stop would take a cycle that is
///           over for one that is to come
///           (2) enters the queue: runs there itself when that is idle, else leaves its work there and waits
///           (3) in the queue lowers `unsafe`; if it was 2 or more, stop came between (1) and (3): ends the callback
///           (4) else runs the nodes, still in the queue
///   stop    raises `unsafe` for good; if it was 0, ends the callback itself, else leaves that to (3), and calls the
///           cycle away if it waits
///
/// A new layout found in (4) raises it for good too, and ends the callback. Each changes the counter in one indivisible
/// step, so that of two the later sees the earlier's mark. That excludes
///   - nodes run after stop: (3) and (4) are one piece of work of the queue, stop is another; if stop is the earlier, (3)
///     sees its mark, if it is the later, (4) is over;
///   - a callback ended twice or never: stop ends it exactly if no cycle has marked, a cycle exactly if stop has;
///   - a circle of waiting. Ending a callback, starting a device and setting its rate may wait for its running cycle. So
///     a cycle never ends its callback itself but leaves it to a thread that no cycle waits for; start keeps cycles out;
///     and stop, after which the queue goes on to start something else, calls a waiting cycle away: that goes without its
///     turn, and its work finds nothing to do but (3). For work of the queue that waits for the hardware in some other
///     way, a cycle waits half a second at most;
///   - a context that is gone while a cycle uses it: until stop has run the runner keeps it, and a stop that leaves the
///     end to a cycle leaves the context to it too (`keeper`).
///
/// A cycle that waits and the thread that ends its waiting agree by `_turn`: the cycle makes it Waiting, its work Running and
/// then Done, or the cycle's time limit or stop Abandoned; Waiting is left by compare-and-swap, so by one of them. Only
/// work that made it Running may look at the cycle's buffers. The cycle looks for stop's mark after it has said Waiting,
/// stop looks for Waiting after it has marked; both are sequentially consistent: at least one sees the other. While an
/// abandoned cycle's work is under way, its mark keeps other cycles out. tests/models/io_handshake.pml goes through
/// every interleaving.
/// Threads:   as each step says. What is not said to be the cycle's is for work of the queue, and for start before it
///            lets cycles in.
/// Real time: the steps of a cycle.
class DXR_EXPORT DXRAudioIOContext final : public CXObject {
public:
    static CXRef<DXRAudioIOContext> init();

private:
    friend class DXRAudioContext; // whose record it is

    static constexpr uint64_t noSampleTime = std::numeric_limits<uint64_t>::max();

    std::atomic<uint32_t> unsafe{0};      ///< cycles, starts and stops under way
    AudioDeviceIOProcID procID = nullptr; ///< the callback
    /// Of the device when it was installed, input and output: the channels of each stream, and all together.
    std::vector<uint32_t> streamChannels[2];
    uint32_t channels[2] = {};
    uint32_t frameCount = 0;                ///< of the device's last cycle
    double sampleRate = 0.0;                ///< the device's nominal rate as last read, Hz
    uint64_t lastSampleTime = noSampleTime; ///< the device's, of the last cycle
    uint32_t lastFrameCount = 0;            ///< and its frames
    CXRef<DXRAudioConverter> converter;     ///< null while the device runs as the runner does
    /// Of the last cycle that ran, input and output, in frames: from its time to its first frame, and from there to the
    /// first of the last block.
    double distances[2] = {}, blockPlaces[2] = {};

    /// The device says that its rate has changed: the next cycle forgets `lastSampleTime` and reads it.
    std::atomic<bool> rateChanged{false};
    CXRef<DXRPropertyListener> rateListener;

    // -- The cycle that has passed (1), set by it

    uint64_t sampleTime = 0; ///< the device's
    uint64_t dueTicks = 0;   ///< when it was to begin; 0 when the device does not say
    uint64_t beginTicks = 0; ///< when it came in, for the runner's trace; 0 while there is none
    DXRStreamBuffers buffers{};
    double inputSampleTime = 0, outputSampleTime = 0; ///< the device's, of the first frames
    const std::unique_ptr<DeviceClock> clock;
    bool hasTime = false; ///< whether the device says when it is; else the cycle is skipped
    /// The nominal rate where it was to be read again; nothing when it was not, or is not readable.
    std::optional<double> freshRate;

    // -- Made ahead by start, since a cycle asks for them

    /// Room for the entries of devices with more channels than fit the stack.
    std::vector<DXRChannelEntry> entries[2];
    /// The cycle's turn, and the end of the callback, as work of the queue. They hold this record, which they leave when
    /// forgetWork() says so.
    CXDispatchQueue::Work turn;
    CXDispatchQueue::Work ending;

    /// The context, while a cycle is to end its callback.
    CXRef<CXObject> keeper;
    bool needsRestart = false; ///< whether the runner starts a new context after the end of the callback

    /// Of a cycle: (1). False: it is over.
    bool enter() noexcept CX_REALTIME;
    /// Of a cycle that found the queue busy: leaves `turn` there and waits until it has run, or can no longer.
    void waitForTurn(CXDispatchQueue& queue) noexcept CX_REALTIME;
    /// Of `turn`: whether the cycle still waits, and its buffers are there; finishTurn() lets it go on.
    bool claimTurn() noexcept CX_REALTIME;
    void finishTurn() noexcept CX_REALTIME;
    /// Of (3). False: stop came, and the callback is to be ended.
    bool leaveUnlessStopped() noexcept CX_REALTIME { return unsafe.fetch_sub(1) < 2; }
    /// Of stop: raises the mark for good. True: the caller ends the callback; false: a cycle will.
    bool stopCycles() noexcept;
    void forgetWork();

    enum Turn : uint32_t { None, Waiting, Running, Done, Abandoned };

    DXRAudioIOContext();
    ~DXRAudioIOContext() override;

    bool _abandonTurn() noexcept CX_REALTIME;

    std::atomic<uint32_t> _turn{None};
};
