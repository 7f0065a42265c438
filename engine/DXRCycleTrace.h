#pragma once

#include "AudioHardware.h"
#include "CXObject.h"
#include "CXRef.h"

#include <atomic>
#include <cstdint>
#include <memory>
#include <span>

/// One entry of a DXRCycleTrace: a cycle of a runner, or a state change of the context that runs the cycles.
/// Ticks are the host clock's (HostClock); 0 if unknown. Over hardware on a stepped clock (simulated.h),
/// dueTicks and deadlineTicks are that clock's, and no cycle is late: compare them only with one another.
struct DXRCycleRecord {
    enum class Event : uint8_t {
        Cycle,
        ContextStarted, ///< at the runner's start, and whenever devices have appeared, disappeared or changed
        ContextFailed,  ///< as above, but without cycles until a later start succeeds
        ContextStopped, ///< because the runner stops, or because another context is about to start
    };
    enum class Context : uint8_t { None, Device, Aggregate, Timer };

    Event event = Event::Cycle;
    Context context = Context::None; ///< the kind of context; None if no aggregate could be created
    uint32_t contextNumber = 0;      ///< since the runner's start, from 1: restarts so far plus one
    AudioObjectID deviceID = kAudioObjectUnknown; ///< the device that runs the cycles; 0 for the timer
    uint32_t frameCount = 0;                      ///< of the device's cycle
    /// How far the runner's time advanced in this cycle; with a converter this may be 0 or several blocks.
    uint32_t runnerFrameCount = 0;
    uint64_t sampleTime = 0; ///< the runner's, at the first block of the cycle or at the event
    /// The device's. If it is not the previous cycle's plus its frames, frames were lost.
    uint64_t deviceSampleTime = 0;
    uint64_t dueTicks = 0;      ///< when the hardware's cycle was due to begin
    uint64_t deadlineTicks = 0; ///< when the next cycle is due: a cycle that ends after this is late
    uint64_t beginTicks = 0;    ///< when the cycle began; for an event, when the change began
    /// When the cycle got its turn on the runner's queue and the blocks began to run.
    uint64_t blocksBeginTicks = 0;
    uint64_t endTicks = 0;       ///< when the last block returned; for an event, when the change was complete
    uint64_t droppedRecords = 0; ///< number of records dropped before this one, because the ring was full
};

/// Records every cycle of a runner: see DXRDeviceRunner::setCycleTrace(). Cycles write to a ring that the
/// application reads periodically; records that do not fit are dropped and counted.
/// Threads:   one reader at a time; the writer is the runner that uses the trace.
/// Real time: writing and reading; neither waits.
class DXR_EXPORT DXRCycleTrace final : public CXObject {
public:
    static constexpr uint32_t usualRecords = 8192; ///< more than ten seconds of cycles of 64 frames at 48 kHz
    static constexpr uint32_t maxRecords = 1U << 24;

    /// Room for at least `minRecords`, limited to maxRecords. Allocates all of it.
    static CXRef<DXRCycleTrace> init(uint32_t minRecords = usualRecords);

    /// Takes the oldest records, as many as are available and fit in `records`; returns their number.
    size_t read(std::span<DXRCycleRecord> records) noexcept CX_REALTIME;
    /// Number of records dropped so far because the ring was full. Any thread.
    uint64_t droppedRecords() const noexcept CX_REALTIME { return _dropped.load(std::memory_order_relaxed); }

    // -- For runners

    /// Returns false if another runner uses the trace already.
    bool take() noexcept { return !_isTaken.exchange(true, std::memory_order_acquire); }
    void giveBack() noexcept { _isTaken.store(false, std::memory_order_release); }
    /// Sets droppedRecords. As work of the runner's queue, which includes cycles.
    void write(const DXRCycleRecord& record) noexcept CX_REALTIME;

private:
    explicit DXRCycleTrace(uint64_t capacity);
    ~DXRCycleTrace() override = default;

    const uint64_t _mask; // capacity, a power of two, minus one
    const std::unique_ptr<DXRCycleRecord[]> _records;

    // Record n, counted from the first one written, is stored at index n & _mask. Records from _read up to
    // _written belong to the reader, the others to the writer.
    //   - The writer stores a record and then _written, with release; the reader loads _written with acquire:
    //     every record it counts is complete.
    //   - The reader copies records and then stores _read, with release; the writer loads _read with acquire
    //     before it overwrites a record: that record has been copied. The writer loads it only if _readSeen
    //     leaves no room, so that the reader's cache line is not fetched in every cycle.
    // Each index is stored by one side only. There is one writer at a time, but not always the same thread:
    // records are written as work of one queue, whose locking orders one writer after the other; and a runner
    // that gives the trace back orders its writes before the next runner's through _isTaken.
    alignas(64) std::atomic<uint64_t> _written{0};
    uint64_t _readSeen = 0;            // the writer's copy of _read, which may be out of date
    std::atomic<uint64_t> _dropped{0}; // stored by the writer only; orders nothing else
    std::atomic<bool> _isTaken{false};
    alignas(64) std::atomic<uint64_t> _read{0};
};
