#pragma once

#include "CXDispatchQueue.h"
#include "DXRConversionQuality.h"
#include "DXRCycleTrace.h"

#include <atomic>

/// State that a runner shares with the contexts that run its nodes: requested and effective settings, the
/// sample time, the counts, the trace. The runner owns it and outlives every context.
/// Threads:   changed as work of the queue, which includes cycles. Values that getters read on any thread are
///            atomic, each on its own.
/// Real time: functions marked so.
class RunnerIO {
public:
    /// A frame count or a rate: as requested, and as in effect while the runner runs; 0 if unset.
    template <class Value> struct Setting {
        std::atomic<Value> requested{}, inEffect{};

        Value value() const noexcept CX_REALTIME
        {
            const Value now = inEffect.load(std::memory_order_relaxed);
            return now != 0 ? now : requested.load(std::memory_order_relaxed);
        }
    };

    explicit RunnerIO(CXRef<CXDispatchQueue> itsQueue) : queue(std::move(itsQueue)) {}
    RunnerIO(const RunnerIO&) = delete;
    RunnerIO& operator=(const RunnerIO&) = delete;

    const CXRef<CXDispatchQueue> queue;
    Setting<uint32_t> frameCount; ///< frames a cycle
    Setting<double> sampleRate;   ///< Hz
    std::atomic<DXRConversionQuality> conversionQuality{DXRConversionQuality::Standard};
    std::atomic<uint64_t> sampleTime{0}; ///< at the next cycle
    /// Since the runner's start; `lostFrames` since the context's start.
    std::atomic<uint64_t> cycles{0}, lateCycles{0}, lostFrames{0};

    // -- Callbacks of the runner, called as work of the queue

    CXBlock<void()> onFormat; ///< a frame count and a rate have taken effect
    /// The device of `context` has changed its streams: the runner makes a new context, unless it already
    /// has.
    CXBlock<void(const CXObject& context)> onNewLayout;

    /// A context has started. At the first start since reset(), these take effect until the runner stops.
    void contextDidStart(double rate, uint32_t frames)
    {
        if (frameCount.inEffect != 0)
            return;
        frameCount.inEffect = frames;
        sampleRate.inEffect = rate;
        if (onFormat)
            onFormat();
    }
    /// The runner has stopped.
    void reset() noexcept
    {
        frameCount.inEffect = 0;
        sampleRate.inEffect = 0.0;
        sampleTime = cycles = lateCycles = 0;
        contextNumber = 0;
    }

    // -- Called by a cycle

    void setSampleTime(uint64_t time) noexcept CX_REALTIME
    {
        sampleTime.store(time, std::memory_order_relaxed);
    }
    /// Counts a cycle: whether it ended late, and the frames that its device lost before it.
    void noteCycle(bool isLate, uint64_t framesLost) noexcept CX_REALTIME
    {
        const auto add = [](std::atomic<uint64_t>& count, uint64_t more) { // only one thread adds at a time
            count.store(count.load(std::memory_order_relaxed) + more, std::memory_order_relaxed);
        };
        add(cycles, 1);
        add(lateCycles, isLate ? 1 : 0);
        add(lostFrames, framesLost);
    }

    // -- Tracing

    std::atomic<uint32_t> contextNumber{0}; ///< number of contexts since the runner's start
    CXRef<DXRCycleTrace> trace;             ///< receives the records; null without tracing
    std::atomic<bool> isTraced{false}; ///< whether `trace` is set: a hint, for a cycle not yet on the queue

    /// A record with the fields that all records of a context share, at the present sample time.
    DXRCycleRecord record(DXRCycleRecord::Context context, AudioObjectID deviceID) const noexcept CX_REALTIME
    {
        DXRCycleRecord record;
        record.context = context;
        record.contextNumber = contextNumber;
        record.deviceID = deviceID;
        record.sampleTime = sampleTime.load(std::memory_order_relaxed);
        return record;
    }
};
