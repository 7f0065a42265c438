// Compares the latency that the runner reports with a ramp's measured delay.

#include "EngineComputer.h"

#include <cmath>

namespace {

constexpr double ticksPerSecond = 1e9; // of the simulated hardware's clock

/// Devices that record the time, in seconds, and measure its delay when it is played.
class LatencyTest : public EngineComputer {
protected:
    struct Shape {
        uint32_t frames;
        double rate;
        uint32_t clockDomain, safetyOffset, latency;
    };

    double seconds() const { return static_cast<double>(hal.nowTicks()) / ticksPerSecond - _begin; }
    /// A cycle's first frame was recorded one cycle and the safety offset earlier, and plays as much later.
    SimulatedDeviceBuilder duplex(const char* uid, const Shape& shape)
    {
        const auto away = [this, shape](double frame, double sign) {
            return seconds() +
                   (frame + sign * (shape.frames + shape.safetyOffset + shape.latency)) / shape.rate;
        };
        SimulatedDeviceBuilder made = aDevice().uid(uid).inputs(1).outputs(1).clockDomain(shape.clockDomain);
        for (const HALDirection direction : {HALDirection::Input, HALDirection::Output})
            made.latency(direction, shape.latency, shape.safetyOffset);
        made.sampleRates({shape.rate}).sampleRate(shape.rate).bufferFrameSize(shape.frames);
        made.bufferFrameSizeRange(shape.frames, shape.frames);
        made.hears([away](uint64_t, uint32_t frameCount, uint32_t, double, float* samples) {
            for (uint32_t frame = 0; frame < frameCount; ++frame)
                samples[frame] = static_cast<float>(away(frame, -1));
        });
        return made.playsInto([this, away](uint64_t, uint32_t count, uint32_t, double, const float* samples) {
            for (uint32_t frame = 0; samples && frame < count && samples[frame] != 0; ++frame)
                _late = away(frame, 1) - static_cast<double>(samples[frame]);
        });
    }
    double _begin = 0, _late = 0;
};

TEST_F(LatencyTest, isWhatARampMeasures)
{
    const struct {
        const char* out;
        uint32_t otherDomain, frames, otherFrames; // devices of one domain share a cycle length
    } kinds[] = {{"one", 1, 64, 64},    {"one", 1, 256, 256},   {"one", 1, 512, 512},
                 {"other", 1, 64, 64},  {"other", 1, 256, 256}, {"other", 1, 512, 512},
                 {"other", 2, 64, 512}, {"other", 2, 256, 256}, {"other", 2, 512, 64}};
    const auto expectSaid = [this](const char* outUID, double rate, uint32_t runnerFrames) {
        const CXRef<DXRDevice> in = device("one", input), out = device(outUID, output);
        _begin += seconds(); // restart near 0: small numbers are exact
        runner->setFrameCount(runnerFrames);
        runner->setSampleRate(48000);
        std::vector<float> kept(runnerFrames);
        ASSERT_TRUE(runner->addDevice(in, Channels{1}, [&](uint64_t, DXRBuffer& heard) {
            std::copy_n(heard.samples(), kept.size(), kept.begin());
        }));
        ASSERT_TRUE(runner->addDevice(
            out, Channels{1}, [&](uint64_t, DXRBuffer& given) { std::ranges::copy(kept, given.samples()); }));
        runner->start();
        EXPECT_FALSE(runner->roundTripSeconds(in, out));
        hal.advance(static_cast<uint64_t>(3 * ticksPerSecond));
        EXPECT_NEAR(runner->roundTripSeconds(in, out).value_or(0) * rate, _late * rate, 0.5);
        runner->stop();
        runner->removeDevice(in);
        runner->removeDevice(out);
    };
    for (const auto& [out, otherDomain, frames, otherFrames] : kinds) {
        for (const double rate : {48000.0, 44100.0}) {
            plug(duplex("one", {frames, rate, 1, 16, 40}));
            plug(duplex("other", {otherFrames, rate, otherDomain, 24, 7}));
            for (const uint32_t runnerFrames : {64U, 256U, 512U}) {
                SCOPED_TRACE(testing::Message() << out << otherDomain << " at " << rate << ": " << frames
                                                << ' ' << otherFrames << ' ' << runnerFrames);
                expectSaid(out, rate, runnerFrames);
            }
            unplug("one");
            unplug("other");
        }
    }
}

// A block's host time is that of its device: it includes the ring's delay but not the device's latency.
TEST_F(LatencyTest, isInTheTimesOfBlocksBehindARing)
{
    constexpr double rate = 48000, latency = 7 / rate;
    plug(duplex("clock", {256, rate, 1, 16, 40}));
    plug(duplex("other", {512, rate, 2, 24, 7}));
    runner->setFrameCount(100);
    double heardLate = 1; // seconds
    const auto secondsOf = [this](const DXRBuffer& buffer) {
        return static_cast<double>(buffer.hostTime()) / ticksPerSecond - _begin;
    };
    ASSERT_TRUE(runner->addDevice(device("clock", input), Channels{1}, idle));
    ASSERT_TRUE(runner->addDevice(device("other", input), Channels{1}, [&](uint64_t, DXRBuffer& heard) {
        heardLate = secondsOf(heard) - static_cast<double>(heard.samples()[0]) - latency;
    }));
    ASSERT_TRUE(runner->addDevice(device("other", output), Channels{1}, [&](uint64_t, DXRBuffer& given) {
        for (uint32_t k = 0; k < given.frameCount(); ++k)
            given.samples()[k] = static_cast<float>(secondsOf(given) + k / rate);
    }));
    runner->start();
    const auto framesOffAfter = [&](double length) {
        _begin += seconds();
        hal.advance(static_cast<uint64_t>(length * ticksPerSecond));
        return std::max(std::abs(heardLate), std::abs(_late - latency)) * rate;
    };
    framesOffAfter(10);                                      // until the clocks are measured
    eventually([&] { return framesOffAfter(0.1) <= 0.75; }); // rings are polled in real time
    EXPECT_LT(framesOffAfter(1), 1);
}

} // namespace
