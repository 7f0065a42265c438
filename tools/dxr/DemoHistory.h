#pragma once

#include "DemoStage.h"

#include <string>
#include <vector>

/// What has happened in a run of the demo, as its picture shows it. Times are seconds from the beginning.
/// Threads: one.
struct DemoHistory {
    /// From a time on until the next: the devices that run as one; none means that the timer keeps time.
    struct Context {
        double seconds;
        size_t deviceCount;
        DemoStage::Device leader; ///< whose clock it goes by; of no meaning without devices
    };
    struct Presence {
        DemoStage::Device device;
        double from, to; ///< `to` is negative while it is there
    };
    struct Note {
        double seconds;
        DemoStage::Device device;
        std::string what;
    };
    struct Value {
        double seconds;
        DemoStage::Device device;
        double value;
    };
    struct Cycle {
        double seconds;
        double sampleSeconds; ///< its sample time
    };
    /// A tenth of a second of what an output played.
    struct Tone {
        double seconds; ///< of its middle
        DemoStage::Device device;
        std::array<double, DemoRecording::channelCount> quality; ///< dB, the channel's tone over all else
        double level;                                            ///< of the first channel's tone, peak
        double pitchError; ///< of the first channel's tone, parts per million of what it must be
    };

    double seconds = 0.0; ///< how long it was
    std::vector<Context> contexts;
    std::vector<Presence> presences;
    std::vector<Note> notes;
    std::vector<Value> drifts; ///< parts per million against the leader's clock
    std::vector<Cycle> cycles;
    std::vector<Tone> tones;

    /// The context at a time; none before the first.
    const Context* contextAt(double when) const;
    bool isThere(DemoStage::Device device, double when) const;

    /// Measures what an output has played since `begunTicks` by the tones that must be in it.
    void addTones(DemoStage::Device output, const DemoRecording& recording, uint64_t begunTicks);
};
