#pragma once

#include "ClockTracker.h"
#include "CompensatingResampler.h"

/// A cycle of the device that writes frames into a ring buffer.
struct WriterCycle {
    uint64_t hostNanoseconds; ///< when the cycle was due, or began
    uint64_t frame;           ///< the device's clock at the end of the cycle's frames
    uint64_t ringFrame;       ///< the ring's frame number at the same point
    uint32_t frameCount;
};

/// The frames that a cycle of the reading device takes from the ring.
struct ReadPlan {
    CompensatingResampler::Walk walk; ///< of the cycle's first frame
    uint32_t silentFrames = 0;        ///< frames at the beginning for which there is no input
    uint32_t frameCount = 0;          ///< frames after those, from `walk` on; the rest of the cycle is silent
    bool isJump = false;              ///< true: the walk does not continue the previous one
    uint64_t releasedFrame = 0;       ///< of the ring: frames before it are no longer needed
};

/// Controls how one device's frames are read in another device's cycles, so that their delay stays constant
/// while the clocks drift. Pure arithmetic on time stamps: no threads, no ring, no samples.
///
/// Each clock is estimated from its stamps by a ClockTracker, on the reader's thread. The writer's clock at
/// the time of a reader's cycle determines the target position and rate of reading; this is feed-forward. A
/// second-order loop moves the reading position towards the target by small changes of the rate. Its
/// bandwidth is high at first and then decreases, so that the remaining noise of the stamps causes slow,
/// inaudible changes instead of pitch modulation. (F. Adriaensen, "Controlling adaptive resampling", Linux
/// Audio Conference 2012, closes the loop over the measured level of the ring instead, which is known only to
/// within a cycle. Feed-forward keeps that error out of the loop; the level only determines whether frames
/// are available.)
///
/// The delay is a cycle of each side, the resampler's look-ahead, and a margin for late threads: with cycles
/// of 64 frames or more, at most three of the longer cycles.
/// Threads:   one at a time, the reader's.
/// Real time: everything.
class DriftController {
public:
    struct Settings {
        double writerRate = 48000.0; ///< nominal, Hz
        double readerRate = 48000.0; ///< nominal, Hz
        bool compensates = true;     ///< false: reads at exactly the nominal ratio: both have one clock
        uint32_t framesBefore = 31;  ///< needed by the resampler before and after a position
        uint32_t framesAfter = 32;
    };
    explicit DriftController(const Settings& settings) noexcept;
    /// The delay that two devices with these cycle lengths will have, in frames of the writer.
    static double delayFor(const Settings& settings, uint32_t writerFrames, uint32_t readerFrames) noexcept;

    /// Adds a cycle of the writer. Called for the cycles in order, before the next plan().
    void wrote(const WriterCycle& cycle) noexcept CX_REALTIME;
    /// Plans a cycle of the reader that begins at `hostNanoseconds` and `sampleTime`. The ring holds the
    /// frames from `firstFrame` to before `endFrame`.
    ReadPlan plan(uint64_t hostNanoseconds, uint64_t sampleTime, uint32_t frameCount, uint64_t firstFrame,
                  uint64_t endFrame) noexcept CX_REALTIME;

    // -- Status

    /// Input frames per output frame, divided by the nominal ratio: the ratio of the clocks and the
    /// correction of the delay.
    double ratio() const noexcept CX_REALTIME { return _walk.step / _nominalRatio; }
    /// The writer's rate divided by the reader's, each relative to nominal.
    double clockRatio() const noexcept CX_REALTIME { return _writer.rateRatio() / _reader.rateRatio(); }
    /// Frames between the reading position and the end of the written frames, in the last plan.
    double level() const noexcept CX_REALTIME { return _level; }
    /// The delay that is maintained, in the writer's frames.
    double delay() const noexcept CX_REALTIME;
    /// How often reading jumped after it had begun, and how many of the reader's frames were silent since
    /// then.
    uint32_t resynchronisations() const noexcept CX_REALTIME { return _resynchronisations; }
    uint64_t lostFrames() const noexcept CX_REALTIME { return _lostFrames; }
    bool isRunning() const noexcept CX_REALTIME { return _isRunning; }

private:
    double _longerCycle() const noexcept CX_REALTIME;
    double _wantedRatio() const noexcept CX_REALTIME;
    double _margin() const noexcept CX_REALTIME;
    double _error(double target) const noexcept CX_REALTIME;
    bool _mustJump(double error, uint32_t frameCount, uint64_t endFrame) const noexcept CX_REALTIME;
    void _place(double target) noexcept CX_REALTIME;
    void _steer(double error, uint32_t frameCount) noexcept CX_REALTIME;
    void _fit(ReadPlan& plan, uint32_t frameCount, uint64_t firstFrame, uint64_t endFrame) const noexcept
        CX_REALTIME;
    void _noteShortage(const ReadPlan& plan, uint32_t frameCount, uint64_t endFrame) noexcept CX_REALTIME;

    const Settings _settings;
    const double _nominalRatio;
    ClockTracker _writer, _reader;

    uint32_t _writerFrames = 0; // the longest cycle so far
    uint32_t _readerFrames = 0;
    uint64_t _ringOffset = 0; // ring frame minus clock frame, modulo 2^64
    uint64_t _nextSampleTime = 0;
    bool _hasRead = false;

    bool _isRunning = false;
    bool _hasSounded = false;          // a whole cycle was read: only then can frames be lost
    bool _mustBegin = true;            // the clocks or the delay have changed since the walk was placed
    CompensatingResampler::Walk _walk; // of the next cycle
    double _seconds = 0.0;             // of reading, since the clocks were last reset

    double _extraMargin = 0.0;   // frames, learned from shortages
    double _shortage = 0.0;      // missing frames at the worst point of the current shortage
    double _sinceShortage = 1e9; // seconds

    double _level = 0.0;
    uint32_t _resynchronisations = 0;
    uint64_t _lostFrames = 0;
};
