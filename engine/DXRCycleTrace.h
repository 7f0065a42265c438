#pragma once

#include "AudioHardware.h"
#include "CXObject.h"
#include "CXRef.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <span>

/// One entry of a DXRCycleTrace: a cycle of a runner, or what became of the context that gives its cycles. Ticks are the
/// host clock's (HostClock); 0 where it is not known.
struct DXRCycleRecord {
    enum class Event : uint8_t {
        Cycle,
        ContextStarted, ///< of what is there, at the runner's start and whenever devices have come, gone or changed
        ContextFailed,  ///< the same, but there are no cycles until devices next change
        ContextStopped, ///< with the runner, or for another to start
    };
    enum class Context : uint8_t { None, Device, Aggregate, Timer };

    Event event = Event::Cycle;
    Context context = Context::None; ///< where cycles come from; None when no aggregate could be made
    uint32_t contextNumber = 0;      ///< since the runner was started, from 1: one more than restarts so far
    AudioObjectID deviceID =
        kAudioObjectUnknown; ///< whose cycles they are; of an aggregate its own; 0 of the timer
    uint32_t frameCount = 0; ///< of the device's cycle
    /// By how many frames the runner's time went on in this cycle: none, or several blocks' worth, where a converter
    /// stands between.
    uint32_t runnerFrameCount = 0;
    uint64_t sampleTime = 0; ///< the runner's, of the first block in the cycle, or at the event
    uint64_t deviceSampleTime =
        0;                      ///< the device's: other than the last cycle's and its frames, some were lost
    uint64_t dueTicks = 0;      ///< when the hardware's cycle was to begin
    uint64_t deadlineTicks = 0; ///< when the next one is due: the cycle is late that ends after this
    uint64_t beginTicks = 0;    ///< when it came in; of an event, when work on it began
    uint64_t blocksBeginTicks =
        0;                       ///< when it had its turn in the runner's queue, and the blocks began to run
    uint64_t endTicks = 0;       ///< when the last block had run; of an event, when it was done
    uint64_t droppedRecords = 0; ///< how many before this one found no room
};

/// A record of every cycle of a runner: DXRDeviceRunner::setCycleTrace(). The cycles write,
/// the application reads every so often; what finds no room, since nobody read for too long, is dropped and counted.
/// Threads:   one reads, at a time; the runner that has it writes.
/// Real time: writing and reading; neither waits.
class DXR_EXPORT DXRCycleTrace final : public CXObject {
public:
    static constexpr uint32_t usualRecords = 8192; ///< ten seconds of cycles of 64 frames at 48 kHz, and some
    static constexpr uint32_t maxRecords = 1U << 24;

    /// Room for `minRecords`, at least; no more than maxRecords. Allocates it all.
    static CXRef<DXRCycleTrace> init(uint32_t minRecords = usualRecords);

    /// Takes the oldest records, as many as there are and fit; returns how many.
    size_t read(std::span<DXRCycleRecord> records) noexcept CX_REALTIME;
    /// Records that found no room so far. Any thread.
    uint64_t droppedRecords() const noexcept CX_REALTIME { return _dropped.load(std::memory_order_relaxed); }

    // -- For runners

    /// False when a runner has it already.
    bool take() noexcept { return !_isTaken.exchange(true, std::memory_order_acquire); }
    void giveBack() noexcept { _isTaken.store(false, std::memory_order_release); }
    /// Fills in droppedRecords. As work of the runner's queue, to which a cycle counts.
    void write(const DXRCycleRecord& record) noexcept CX_REALTIME;

private:
    explicit DXRCycleTrace(uint64_t capacity);
    ~DXRCycleTrace() override = default;

    const uint64_t _mask; // capacity, a power of two, minus one
    const std::unique_ptr<DXRCycleRecord[]> _records;

    // Record n of all that were written lies at n & _mask. Records from _read up to _written are the reader's, the others
    // the writer's.
    //   - The writer stores a record and then _written, with release; the reader loads that with acquire: what it
    //     counts is complete.
    //   - The reader copies records and then stores _read, with release; the writer loads that with acquire before it
    //     writes: what it overwrites has been copied. It looks only when what it saw last leaves no room, so that the
    //     reader's cache line is not fetched in every cycle.
    // Each is stored by one side only. There is one writer at a time, though not always the same thread: records are
    // written as work of one queue, whose right to run work carries what the last writer did to the next; and a runner
    // that has given the trace back is done with it, by _isTaken, before another takes it.
    alignas(64) std::atomic<uint64_t> _written{0};
    uint64_t _readSeen = 0;            // the writer's copy of _read, which may be older
    std::atomic<uint64_t> _dropped{0}; // stored by the writer; stands for itself
    std::atomic<bool> _isTaken{false};
    alignas(64) std::atomic<uint64_t> _read{0};
};
