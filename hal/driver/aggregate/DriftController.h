#pragma once

#include "ClockTracker.h"
#include "CompensatingResampler.h"

/// A cycle of the device that writes frames into a ring.
struct WriterCycle {
    uint64_t hostNanoseconds; ///< when the cycle was due, or taken up
    uint64_t frame;           ///< of the device's clock, behind the frames that it wrote
    uint64_t ringFrame;       ///< of the ring, behind the same frames
    uint32_t frameCount;
};

/// What a cycle of the reading device takes from the ring.
struct ReadPlan {
    CompensatingResampler::Walk walk; ///< of the cycle's first frame
    uint32_t silentFrames = 0;        ///< at its start: there is nothing for them
    uint32_t frameCount = 0;          ///< after them, from `walk` on; what then lacks is silent too
    bool isJump = false;              ///< the walk does not go on where the last one ended
    uint64_t releasedFrame = 0;       ///< of the ring: nothing before it is needed any more
};

/// Steers how one device's frames are read in another device's cycles, so that their delay stays the same
/// while the clocks drift. Pure arithmetic over time stamps: no threads, no ring, no samples.
///
/// Both clocks are estimated from their stamps by a ClockTracker, on this thread. From the writer's clock at
/// the moment of a cycle follows where reading must stand, and how fast it must go; that is fed forward.
/// Reading itself moves like a weight on a spring towards that place: its rate is pulled, never set, by a
/// second-order loop that is wide at first and then narrows, so that what noise the stamps leave becomes slow
/// and harmless instead of a wobble in the sound. (F. Adriaensen, "Controlling adaptive resampling", Linux
/// Audio Conference 2012, closes the loop over the measured level of the ring instead, which is known only to
/// a cycle; feeding the clocks forward keeps that out of the loop, and the level decides nothing but whether
/// frames are there.)
///
/// The delay is a cycle of each side, what the resampler reaches ahead, and a margin for late threads: with
/// cycles of 64 frames or more not above three of the larger.
/// Threads:   one at a time, the reader's.
/// Real time: everything.
class DriftController {
public:
    struct Settings {
        double writerRate = 48000.0; ///< nominal, Hz
        double readerRate = 48000.0; ///< nominal, Hz
        bool compensates = true;     ///< false: at exactly the nominal ratio, for clocks that are one
        uint32_t framesBefore = 31;  ///< what the resampler needs on either side of a position
        uint32_t framesAfter = 32;
    };
    explicit DriftController(const Settings& settings) noexcept;
    /// The delay that two devices with such cycles will have, in frames of the writer.
    static double delayFor(const Settings& settings, uint32_t writerFrames, uint32_t readerFrames) noexcept;

    /// Cycles of the writer, in order, before the next plan().
    void wrote(const WriterCycle& cycle) noexcept CX_REALTIME;
    /// A cycle of the reader: its time, the device's sample time then, and its length. The ring holds the
    /// frames from `firstFrame` to before `endFrame`.
    ReadPlan plan(uint64_t hostNanoseconds, uint64_t sampleTime, uint32_t frameCount, uint64_t firstFrame,
                  uint64_t endFrame) noexcept CX_REALTIME;

    // -- Status

    /// Input frames per output frame, over the nominal ratio: the clocks', and what pulls the delay to where it is held.
    double ratio() const noexcept CX_REALTIME { return _walk.step / _nominalRatio; }
    /// How much faster than nominal the writer's clock runs, against the reader's.
    double clockRatio() const noexcept CX_REALTIME { return _writer.rateRatio() / _reader.rateRatio(); }
    /// Frames between the reading position and the end of what was written, at the last plan.
    double level() const noexcept CX_REALTIME { return _level; }
    /// The delay that is held, in the writer's frames.
    double delay() const noexcept CX_REALTIME;
    /// How often reading had to jump after it had begun, and the reader's frames that were left silent since.
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
    uint64_t _ringOffset = 0; // ring frame less clock frame, modulo 2^64
    uint64_t _nextSampleTime = 0;
    bool _hasRead = false;

    bool _isRunning = false;
    bool _hasSounded = false;          // since it began: only then frames can be lost
    bool _mustBegin = true;            // the clocks, or the delay, are not what the walk was placed for
    CompensatingResampler::Walk _walk; // of the next cycle
    double _seconds = 0.0;             // of reading, since the clocks were last new

    double _extraMargin = 0.0;   // frames, learned from shortages
    double _shortage = 0.0;      // frames that lacked, at the worst of the shortage under way
    double _sinceShortage = 1e9; // seconds

    double _level = 0.0;
    uint32_t _resynchronisations = 0;
    uint64_t _lostFrames = 0;
};
