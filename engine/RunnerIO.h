#pragma once

#include "CXDispatchQueue.h"
#include "DXRConversionQuality.h"
#include "DXRCycleTrace.h"

#include <atomic>

/// What a runner shares with the contexts that run its nodes: what is asked for and in effect, the sample time, the counts,
/// the trace. The runner owns it and outlives every context.
/// Threads:   changed as work of the queue, to which a cycle counts; what getters read from any thread too is atomic, each
///            for itself.
/// Real time: what is marked.
class RunnerIO {
public:
    /// A frame count or a rate: what was asked for, and what is in effect while the runner runs; 0 where there is none.
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
    std::atomic<uint64_t> sampleTime{0}; ///< of the next cycle
    /// Since the runner's start; the last since the context's.
    std::atomic<uint64_t> cycles{0}, lateCycles{0}, lostFrames{0};

    // -- What the runner is to be called for, as work of the queue

    CXBlock<void()> onFormat; ///< a frame count and a rate are in effect now
    /// The device of a context has changed its streams: a new context is wanted, unless there is one already.
    CXBlock<void(const CXObject& context)> onNewLayout;

    /// A context has started; the first time these are in effect until the runner stops.
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

    // -- Of a cycle

    void setSampleTime(uint64_t time) noexcept CX_REALTIME
    {
        sampleTime.store(time, std::memory_order_relaxed);
    }
    /// Whether it ended late, and the frames that its device has lost before it.
    void noteCycle(bool isLate, uint64_t framesLost) noexcept CX_REALTIME
    {
        const auto add = [](std::atomic<uint64_t>& count, uint64_t more) { // one adds at a time
            count.store(count.load(std::memory_order_relaxed) + more, std::memory_order_relaxed);
        };
        add(cycles, 1);
        add(lateCycles, isLate ? 1 : 0);
        add(lostFrames, framesLost);
    }

    // -- Tracing

    std::atomic<uint32_t> contextNumber{0}; ///< of contexts since the runner's start
    CXRef<DXRCycleTrace> trace;             ///< where records go; null when there is none
    std::atomic<bool> isTraced{
        false}; ///< whether there is one: a hint, for a cycle that has not had its turn

    /// What all records of a context have in common, and the sample time now.
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
