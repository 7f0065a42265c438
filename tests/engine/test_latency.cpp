// Compares the latency that the runner reports with a ramp's measured delay.

#include "DeviceClock.h"
#include "EngineComputer.h"

#include <cmath>
#include <map>
#include <random>

namespace {

constexpr double ticksPerSecond = 1e9; // of the simulated hardware's clock

/// Devices that record the time, in seconds, and measure its delay when it is played.
class LatencyTest : public EngineComputer {
protected:
    struct Distances {
        uint32_t safetyOffset, latency; // frames
    };
    const std::map<std::string, Distances> distances{{"one", {16, 40}}, {"other", {24, 7}}};

    double seconds() const { return static_cast<double>(hal.nowTicks()) / ticksPerSecond - _begin; }
    /// A cycle's first frame was recorded one cycle and the safety offset earlier, and plays as much later.
    SimulatedDeviceBuilder duplex(const std::string& uid, uint32_t clockDomain, uint32_t frames, double rate)
    {
        const auto [safetyOffset, latency] = distances.at(uid);
        const double total = frames + safetyOffset + latency;
        const auto away = [=, this](double frame, double sign) {
            return seconds() + (frame + sign * total) / rate;
        };
        SimulatedDeviceBuilder made = aDevice().uid(uid).inputs(1).outputs(1).clockDomain(clockDomain);
        for (const HALDirection direction : {HALDirection::Input, HALDirection::Output})
            made.latency(direction, latency, safetyOffset);
        made.sampleRates({rate}).sampleRate(rate).bufferFrameSize(frames);
        made.bufferFrameSizeRange(frames, frames);
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

// A block's host time is that of its device: it includes the delays of converters and rings, but not the
// device's latency.
TEST_F(LatencyTest, isWhatARampMeasuresAndSoAreTheTimesOfBlocks)
{
    const struct {
        const char *in, *out;                      ///< "one" is the clock
        uint32_t otherDomain, frames, otherFrames; // devices of one domain share a cycle length
    } kinds[] = {{"one", "one", 1, 64, 64},     {"one", "one", 1, 512, 512},   {"one", "other", 1, 64, 64},
                 {"one", "other", 1, 512, 512}, {"one", "other", 2, 64, 512},  {"one", "other", 2, 256, 256},
                 {"one", "other", 2, 512, 64},  {"other", "other", 2, 64, 512}};
    const auto expectSaid = [&](const std::string& inUID, const std::string& outUID, double rate,
                                uint32_t runnerFrames) {
        using enum DXRConversionQuality;
        const CXRef<DXRDevice> in = device(inUID, input), out = device(outUID, output);
        _begin += seconds(); // restart near 0: small numbers are exact
        runner->setFrameCount(runnerFrames);
        runner->setSampleRate(48000);
        runner->setConversionQuality(runnerFrames == 512 ? High : Standard);
        std::vector<float> kept(runnerFrames);
        double heardAge = 0, givenAge = 0; // of the first frames of blocks at their host times
        const auto ageOf = [this](const DXRBuffer& block) {
            return static_cast<double>(block.hostTime()) / ticksPerSecond - _begin -
                   static_cast<double>(block.samples()[0]);
        };
        if (inUID != "one")
            runner->addDevice(device("one", input), Channels{1}, idle);
        ASSERT_TRUE(runner->addDevice(in, Channels{1}, [&](uint64_t, DXRBuffer& heard) {
            std::copy_n(heard.samples(), kept.size(), kept.begin());
            heardAge = ageOf(heard);
        }));
        ASSERT_TRUE(runner->addDevice(out, Channels{1}, [&](uint64_t, DXRBuffer& given) {
            std::ranges::copy(kept, given.samples());
            givenAge = ageOf(given);
        }));
        // A start that takes the failure for a device that is no aggregate would follow no rings.
        hal.failReads(kAudioAggregateDevicePropertySubDeviceStatus, 1, runnerFrames == 100 ? 1 : 0,
                      kAudioHardwareUnspecifiedError);
        runner->start();
        EXPECT_FALSE(runner->roundTripSeconds(in, out));
        hal.advance(static_cast<uint64_t>(3 * ticksPerSecond));
        EXPECT_NEAR(runner->roundTripSeconds(in, out).value_or(0) * rate, _late * rate, 0.5);
        EXPECT_TRUE(eventually([&] { // rings are polled in real time
            hal.advance(static_cast<uint64_t>(0.02 * ticksPerSecond));
            return std::abs(heardAge * rate - distances.at(inUID).latency) < 0.75 &&
                   std::abs((_late - givenAge) * rate - distances.at(outUID).latency) < 0.75;
        }));
        runner->stop();
        for (const CXRef<DXRDevice>& each : runner->devices())
            runner->removeDevice(each);
    };
    for (const auto& [in, out, otherDomain, frames, otherFrames] : kinds)
        for (const double rate : {48000.0, 44100.0}) {
            plug(duplex("one", 1, frames, rate));
            plug(duplex("other", otherDomain, otherFrames, rate));
            for (const uint32_t runnerFrames : {64U, 100U, 512U}) {
                SCOPED_TRACE(testing::Message() << in << ' ' << out << otherDomain << " at " << rate << ": "
                                                << frames << ' ' << otherFrames << ' ' << runnerFrames);
                expectSaid(in, out, rate, runnerFrames);
                ASSERT_FALSE(HasFailure());
            }
            unplug("one");
            unplug("other");
        }
}

// Stamps are off by some 50 us: in either direction, or late.
TEST(DeviceClock, isRightForStampsThatAreEarlyOrLate)
{
    constexpr double rate = 48000, begin = 1e12; // ns
    for (const double partsPerMillion : {300, -300})
        for (const bool isEarlyToo : {false, true}) {
            const double period = 1e9 / (rate * (1 + partsPerMillion * 1e-6));
            std::mt19937 random(1);
            std::normal_distribution<double> jitter(0, 50e3);
            DeviceClock clock;
            std::vector<double> errors; // ns
            for (uint32_t now = 0; now < 30 * rate; now += 64) {
                const double off = jitter(random), due = begin + now * period;
                const double stamp = due + (isEarlyToo ? off : std::abs(off));
                const auto times =
                    clock.follow(static_cast<uint64_t>(stamp), now, now - 81.0, now + 69.0, rate);
                if (now <= rate / 10)
                    continue; // until the clock is measured
                errors.push_back(std::abs(times.input - (due - 81 * period)));
                errors.push_back(std::abs(times.output - (due + 69 * period)));
            }
            std::ranges::sort(errors);
            EXPECT_LT(errors[errors.size() / 2], 20e3) << "the median";
            EXPECT_LT(errors.back(), 200e3);
        }
}

} // namespace
