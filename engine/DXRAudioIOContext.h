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

/// The buffer lists of one cycle; null for a direction without data.
struct DXRStreamBuffers {
    const AudioBufferList* input;
    const AudioBufferList* output;
};

/// The state of one installed IO callback, from its start to its end. The callback holds it; so does the
/// context while this is its current record.
///
/// The handshake between cycles (on the device's IO thread) and start and stop (as work of the runner's
/// queue):
///
///   start   increments `unsafe`, installs the callback, starts the device, and decrements `unsafe` when the
///           context is ready
///   cycle   (1) sets `unsafe` to 1 if it is 0; otherwise the cycle is skipped. A skipped cycle must not
///               raise the counter even briefly: stop would take it for a cycle that will still reach (3)
///           (2) enters the queue: runs on it at once if it is idle, otherwise enqueues its work and waits
///           (3) on the queue, decrements `unsafe`; if it was 2 or more, stop ran between (1) and (3): ends
///               the callback
///           (4) otherwise runs the nodes, still on the queue
///   stop    increments `unsafe` permanently; if it was 0, ends the callback itself, otherwise leaves that to
///           (3) and releases the cycle if it is waiting
///
/// If (4) finds a new layout, it also increments the counter permanently and ends the callback. Each side
/// changes the counter in one atomic step, so that the later of two sees the earlier's increment. This
/// excludes
///   - running nodes after stop: (3) and (4) are one piece of queue work, stop is another. If stop runs
///     first, (3) sees its increment; if it runs second, (4) has finished;
///   - ending a callback twice or never: stop ends it exactly if no cycle has incremented, a cycle ends it
///     exactly if stop has;
///   - a deadlock. Ending a callback, starting a device and setting its rate may wait for the device's
///     running cycle. So a cycle never ends its callback itself but leaves this to a thread that no cycle
///     waits for; start keeps cycles out; and stop, after which the queue may start another device, releases
///     a waiting cycle: the cycle returns without running its nodes, and its work then does only (3). Other
///     queue work may wait for the hardware too, so a cycle waits at most half a second;
///   - a cycle that uses a destroyed context: the runner keeps the context until stop has run, and a stop
///     that leaves the end of the callback to a cycle also leaves it a reference to the context (`keeper`).
///
/// A waiting cycle and the thread that ends its waiting agree through `_turn`: the cycle sets it to Waiting;
/// its work sets it to Running and then Done, or the cycle's time limit or stop sets it to Abandoned. Waiting
/// is left by compare-and-swap, so exactly one of them succeeds. Only work that set Running may access the
/// cycle's buffers. The cycle checks for stop's increment after it has set Waiting, stop checks for Waiting
/// after it has incremented; both are sequentially consistent, so at least one sees the other. Until an
/// abandoned cycle's work has run, its increment keeps other cycles out. tests/models/io_handshake.pml checks
/// every interleaving.
/// Threads:   as stated for each step. Everything not marked as a cycle's is accessed as work of the queue,
///            and by start before it lets cycles in.
/// Real time: the steps of a cycle.
class DXR_EXPORT DXRAudioIOContext final : public CXObject {
public:
    static CXRef<DXRAudioIOContext> init();

private:
    friend class DXRAudioContext; // the context whose record this is

    static constexpr uint64_t noSampleTime = std::numeric_limits<uint64_t>::max();

    std::atomic<uint32_t> unsafe{0};      ///< number of cycles, starts and stops in progress
    AudioDeviceIOProcID procID = nullptr; ///< identifies the installed callback
    /// The device's channels when the callback was installed, for input and output: per stream, and in total.
    std::vector<uint32_t> streamChannels[2];
    uint32_t channels[2] = {};
    uint32_t frameCount = 0;                ///< of the last cycle, at the device
    double sampleRate = 0.0;                ///< the device's nominal rate as last read, Hz
    uint64_t lastSampleTime = noSampleTime; ///< the device's, at the last cycle
    uint32_t lastFrameCount = 0;            ///< the device's, of the last cycle
    CXRef<DXRAudioConverter> converter;     ///< null while the device runs at the runner's format
    /// Of the last cycle that ran, for input and output, in frames: the distance from the cycle's time to its
    /// first frame, and from there to the first frame of the last block.
    double distances[2] = {}, blockPlaces[2] = {};

    /// Set when the device reports a new rate: the next cycle then forgets `lastSampleTime` and reads the
    /// rate.
    std::atomic<bool> rateChanged{false};
    CXRef<DXRPropertyListener> rateListener;

    // -- The cycle that has passed (1), which sets these

    uint64_t sampleTime = 0; ///< the device's
    uint64_t dueTicks = 0;   ///< when it was due to begin; 0 if the device does not report it
    uint64_t beginTicks = 0; ///< when it began, for the runner's trace; 0 without a trace
    DXRStreamBuffers buffers{};
    double inputSampleTime = 0, outputSampleTime = 0; ///< the device's, of the first frames
    const std::unique_ptr<DeviceClock> clock;
    bool hasTime = false; ///< whether the device reports a sample time; if not, the cycle is skipped
    /// The nominal rate if it had to be read again; empty if it had not, or could not be read.
    std::optional<double> freshRate;

    // -- Prepared by start, because a cycle must not allocate

    const bool isOnHostClock; ///< whether dueTicks is of the host's clock: otherwise no cycle is late
    /// Room for the entries of a device with more channels than fit on the stack.
    std::vector<DXRChannelEntry> entries[2];
    /// Queue work: the cycle's turn, and the end of the callback. Each holds a reference to this record until
    /// forgetWork().
    CXDispatchQueue::Work turn;
    CXDispatchQueue::Work ending;

    /// The context, while the end of the callback is left to a cycle.
    CXRef<CXObject> keeper;
    bool needsRestart = false; ///< whether the runner starts a new context after the callback has ended

    /// Called by a cycle: (1). Returns false if the cycle must be skipped.
    bool enter() noexcept CX_REALTIME;
    /// Called by a cycle that found the queue busy: enqueues `turn` and waits until it has run or is
    /// abandoned.
    void waitForTurn(CXDispatchQueue& queue) noexcept CX_REALTIME;
    /// Called by `turn`. Returns whether the cycle is still waiting, so that its buffers are valid;
    /// finishTurn() then lets it return.
    bool claimTurn() noexcept CX_REALTIME;
    void finishTurn() noexcept CX_REALTIME;
    /// Called at (3). Returns false if stop has run and the callback must be ended.
    bool leaveUnlessStopped() noexcept CX_REALTIME { return unsafe.fetch_sub(1) < 2; }
    /// Called by stop: increments permanently. Returns true if the caller must end the callback, false if a
    /// cycle will.
    bool stopCycles() noexcept;
    void forgetWork();

    enum Turn : uint32_t { None, Waiting, Running, Done, Abandoned };

    DXRAudioIOContext();
    ~DXRAudioIOContext() override;

    bool _abandonTurn() noexcept CX_REALTIME;

    std::atomic<uint32_t> _turn{None};
};
