#include "HALIO.h"
#include "Ramp.h"
#include "Random.h"
#include "SineFit.h"
#include "simulated.h"

#include <deque>
#include <map>
#include <set>

namespace {

/// Copies each of the aggregate's input streams to the output stream with the same index, if it exists.
class Copier : public CycleWitness {
public:
    Copier(HALModel& hal, AudioObjectID device)
        : _proc(hal, device, eachCycle([this](const IOCycle& cycle) { _copy(cycle); }))
    {}

    uint64_t withoutData = 0;
    std::map<uint32_t, float> peaks; // peak level of each input stream since the last clear()

private:
    void _copy(const IOCycle& cycle)
    {
        see(cycle);
        const CXRealtimeExemption exemption("the test's own bookkeeping");
        for (uint32_t stream = 0; cycle.input && stream < cycle.input->numberBuffers; ++stream) {
            const std::span<float> from = cycle.in(stream);
            withoutData += from.empty();
            for (const float sample : from)
                peaks[stream] = std::max(peaks[stream], std::abs(sample));
            if (cycle.output && stream < cycle.output->numberBuffers &&
                cycle.out(stream).size() == from.size())
                std::ranges::copy(from, cycle.out(stream).begin());
        }
    }

    const RunningProc _proc;
};

/// Tests aggregates of devices on the stepped clock.
class AggregateDevices : public SimulatedModel {
protected:
    template <class Value> std::optional<Value> read(AudioObjectID object, uint32_t selector)
    {
        return readValue<Value>(*model, object, at(selector));
    }
    void advance(double seconds)
    {
        for (; seconds > 0.0; seconds -= 0.1) {
            hal->advance(100'000'000);
            hal->settle();
            hal->settle(); // changes that the first ones caused
        }
    }
    /// Checks that cycles continue for half a second, in which only these input streams have sound.
    void expectSound(Copier& copier, const std::set<uint32_t>& streams)
    {
        const uint64_t cycles = copier.cycles;
        copier.peaks.clear();
        advance(0.5);
        EXPECT_GT(copier.cycles, cycles + 40);
        EXPECT_GE(copier.peaks.size(), streams.size());
        for (const auto& [stream, peak] : copier.peaks)
            EXPECT_TRUE(streams.contains(stream) ? peak > 0.4F : peak == 0.0F)
                << peak << " of stream " << stream;
    }
};

TEST_F(AggregateDevices, refusesWhatItCannotBe)
{
    hal->plug(aDevice().uid("taken").outputs(2));
    const CXPlist one = CXPlist::array({{{"uid", "a"}}}), none = CXPlist::array();
    const CXPlist rows[] = {
        CXPlist(),
        none,
        {{"uid", "x"}},
        {{"uid", "x"}, {"subdevices", none}},
        {{"uid", "x"}, {"subdevices", "a"}},
        {{"uid", "x"}, {"subdevices", {"a"}}},
        {{"uid", "x"}, {"subdevices", CXPlist::array({{{"uid", 7}}})}},
        {{"uid", "x"}, {"subdevices", CXPlist::array({{{"uid", "a"}, {"drift", "much"}}})}},
        {{"uid", ""}, {"subdevices", one}},
        {{"uid", "x"}, {"name", 7}, {"subdevices", one}},
        {{"uid", "x"}, {"master", "not among them"}, {"subdevices", one}},
        {{"uid", "x"}, {"private", "yes"}, {"subdevices", one}},
        {{"uid", "x"}, {"stacked", 1}, {"subdevices", one}},
        {{"uid", "taken"}, {"subdevices", one}},
    };
    for (const CXPlist& row : rows) {
        AudioObjectID device = kAudioObjectUnknown;
        EXPECT_EQ(model->createAggregateDevice(*CXValue::initWithPlist(row), device),
                  kAudioHardwareIllegalOperationError)
            << row;
    }
    EXPECT_EQ(readDevices(*model).size(), 1U);
    const AudioObjectID odd = makeAggregate(*model, {"a\xFF"}, {{"uid", "not UTF-8 \xFF"}});
    EXPECT_EQ(readDevices(*model).back(), odd);
    EXPECT_EQ(model->destroyAggregateDevice(odd), kAudioHardwareNoError);
    RunningProc(*model, makeAggregate(*model, {"absent"}), idle, kAudioHardwareUnspecifiedError);
    hal->plug(aDevice().uid("no channels").outputs(0));
    const AudioObjectID silent = makeAggregate(*model, {"no channels"}, {{"uid", "silent"}});
    RunningProc(*model, silent, idle, kAudioHardwareUnspecifiedError);
    const AudioObjectID led = makeAggregate(*model, {"no channels", "taken"}, {{"uid", "led"}});
    uint64_t cycles = 0;
    const RunningProc proc(*model, led, [&](auto...) { ++cycles; });
    advance(0.1);
    EXPECT_GT(cycles, 0U) << "the other leads";
    const AudioObjectID nested = makeAggregate(*model, {"taken", "aggregate"}, {{"uid", "nested"}});
    EXPECT_EQ(readList<AudioObjectID>(*model, nested, at(kAudioAggregateDevicePropertyActiveSubDeviceList)),
              std::vector{hal->deviceID("taken")});
    EXPECT_EQ(model->destroyAggregateDevice(hal->deviceID("taken")), kAudioHardwareIllegalOperationError);
    EXPECT_EQ(model->destroyAggregateDevice(4711), kAudioHardwareBadDeviceError);
}

TEST_F(AggregateDevices, looksLikeItsSubDevicesSideBySide)
{
    hal->plug(aDevice().uid("a").inputs(2).outputs(4).latency(HALDirection::Output, 30).bufferFrameSize(256));
    hal->plug(aDevice().uid("b").outputs(2).outputs(1).sampleRates({48000.0, 96000.0}));
    const AudioObjectID device =
        makeAggregate(*model, {"a", "b", "a", "missing"}, {{"uid", "x"}, {"master", "b"}});
    EXPECT_EQ(channelsOf(*model, device, input), 2U);
    EXPECT_EQ(channelsOf(*model, device, output), 7U);
    EXPECT_EQ(readList<AudioObjectID>(*model, device, at(kAudioDevicePropertyStreams, output)).size(), 3U);
    EXPECT_EQ(read<uint32_t>(device, kAudioDevicePropertyTransportType), kAudioDeviceTransportTypeAggregate);
    EXPECT_EQ(read<uint32_t>(device, kAudioObjectPropertyClass), kAudioAggregateDeviceClassID);
    EXPECT_EQ(readList<AudioObjectID>(*model, device, at(kAudioAggregateDevicePropertyActiveSubDeviceList)),
              (std::vector{hal->deviceID("a"), hal->deviceID("b")}));
    const auto composition = read<CXObject*>(device, kAudioAggregateDevicePropertyComposition);
    const CXPlist subDevices =
        CXRefCast<CXValue>(CXRef<CXObject>::adopt(*composition))->plist()["subdevices"];
    ASSERT_EQ(subDevices.size(), 3U) << "one that comes twice counts once";
    EXPECT_EQ(subDevices[0]["uid"], "a");
    EXPECT_EQ(subDevices[0]["channels-in"], 2);
    EXPECT_EQ(subDevices[0]["channels-out"], 4);
    EXPECT_EQ(subDevices[2]["channels-out"], 0);
    EXPECT_EQ(readList<AudioValueRange>(*model, device, at(kAudioDevicePropertyAvailableNominalSampleRates)),
              (std::vector<AudioValueRange>{{48000, 48000}, {96000, 96000}}));
    EXPECT_EQ(read<uint32_t>(device, kAudioDevicePropertyBufferFrameSize), 512U) << "the clock's";
    // The longest path: through the ring to the device that is not the clock.
    EXPECT_GT(*readValue<uint32_t>(*model, device, at(kAudioDevicePropertyLatency, output)), 256U);

    const CXRef<CXValue> name = CXValue::initWithPlist("Renamed");
    EXPECT_EQ(writeValue<const CXObject*>(*model, device, at(kAudioObjectPropertyName), name.get()), 0);
    EXPECT_EQ(readText(*model, device, at(kAudioObjectPropertyName)), "Renamed");
    const auto rate = at(kAudioDevicePropertyNominalSampleRate);
    EXPECT_EQ(writeValue(*model, device, rate, 96000.0), kAudioHardwareNoError);
    EXPECT_EQ(readValue<double>(*model, hal->deviceID("a"), rate), 96000.0);
    EXPECT_EQ(writeValue(*model, device, rate, 44100.0), kAudioHardwareIllegalOperationError);
    hal->failWritesOf("b", kAudioHardwareUnspecifiedError); // the clock
    EXPECT_EQ(writeValue(*model, device, rate, 48000.0), kAudioHardwareUnspecifiedError);
    EXPECT_EQ(readValue<double>(*model, hal->deviceID("a"), rate), 96000.0) << "it follows the clock";
    hal->failWritesOf("b", kAudioHardwareNoError);
    hal->failWritesOf("a", kAudioHardwareUnspecifiedError);
    EXPECT_EQ(writeValue(*model, device, rate, 48000.0), kAudioHardwareNoError) << "a is resampled";
    EXPECT_EQ(readValue<double>(*model, device, rate), 48000.0);
}

// The samples are the times of their frames.
TEST_F(AggregateDevices, reportsTheLatencyThatARampMeasures)
{
    const struct {
        double rate, otherRate;
        uint32_t frames, otherFrames, otherSafetyOffset;
    } rows[] = {{48000, 48000, 512, 512, 0},
                {48000, 48000, 256, 2048, 0},
                {48000, 96000, 512, 512, 300},
                {192000, 44100, 2048, 512, 9},
                {48000, 192000, 512, 2048, 0}};
    for (const auto& row : rows) {
        const uint64_t begin = hal->nowTicks();
        const auto secondsAt = [&](uint64_t ticks) { return static_cast<double>(ticks - begin) * 1e-9; };
        const double away = (row.otherFrames + row.otherSafetyOffset + 40) / row.otherRate;
        double heard = 0.0, played = 0.0; // latencies, in seconds
        SimulatedDeviceBuilder clock = aDevice().uid("clock").inputs(1).outputs(1), other = clock;
        clock.sampleRate(row.rate).bufferFrameSize(row.frames).latency(HALDirection::Input, 0, 16);
        other.uid("other").sampleRate(row.otherRate).bufferFrameSize(row.otherFrames);
        for (const HALDirection direction : halDirections)
            other.latency(direction, 40, row.otherSafetyOffset);
        other.hears([&](uint64_t, uint32_t count, uint32_t, double rate, float* samples) {
            for (uint32_t i = 0; i < count; ++i)
                samples[i] = static_cast<float>(secondsAt(hal->nowTicks()) - away + i / rate);
        });
        other.playsInto([&](uint64_t, uint32_t, uint32_t, double, const float* samples) {
            played = samples ? secondsAt(hal->nowTicks()) + away - static_cast<double>(*samples) : played;
        });
        hal->plug(clock);
        hal->plug(other);
        const AudioObjectID device = makeAggregate(*model, {"clock", "other"});
        const auto latency = [&](uint32_t scope) {
            return *readValue<uint32_t>(*model, device, at(kAudioDevicePropertyLatency, scope));
        };
        const RunningProc proc(*model, device, eachCycle([&](const IOCycle& cycle) {
            heard = secondsAt(cycle.inputTime->hostTime) - static_cast<double>(cycle.in(1)[0]);
            for (size_t i = 0; i < cycle.out(1).size(); ++i)
                cycle.out(1)[i] = static_cast<float>(secondsAt(cycle.outputTime->hostTime) +
                                                     static_cast<double>(i) / row.rate);
        }));
        advance(2.0);
        EXPECT_NEAR(latency(input), heard * row.rate, 1.0) << row.otherRate;
        EXPECT_NEAR(latency(output), played * row.rate, 1.0) << row.otherRate;
        model->destroyAggregateDevice(device);
        hal->unplug("clock");
        hal->unplug("other");
    }
}

TEST_F(AggregateDevices, bringsEverySubDeviceToTheClock)
{
    // Each device hears a tone and plays it again; clocks and rates differ, and threads wake late.
    struct {
        const char* uid;
        double rate, partsPerMillion;
        uint32_t frames;
    } constexpr rows[] = {
        {"clock", 48000.0, 0.0, 512}, {"other", 48000.0, 300.0, 128}, {"slow", 44100.0, -80.0, 512}};
    std::vector<float> recordings[3];
    for (size_t i = 0; i < 3; ++i) {
        SimulatedDeviceBuilder each = aDevice().uid(rows[i].uid).inputs(2).outputs(2).lateness(100e-6);
        each.sampleRate(rows[i].rate).sampleRates({rows[i].rate}).bufferFrameSize(rows[i].frames);
        each.drift(rows[i].partsPerMillion).hears(simulatedTone(1000.0)).playsInto(sinkTo(recordings[i]));
        hal->plug(each);
    }
    const AudioObjectID device = makeAggregate(*model, {"clock", "other", "slow"});
    const Copier copier(*model, device);
    advance(20.0);
    const auto before = subDeviceStatus(*model, device);
    advance(5.0);
    const auto after = subDeviceStatus(*model, device);
    ASSERT_EQ(after.size(), 3U);
    EXPECT_TRUE(after[0].isClock && after[1].isCompensated && !after[0].isCompensated);
    EXPECT_EQ(copier.backwards + copier.withoutData, 0U);
    for (size_t i = 0; i < 3; ++i) {
        SCOPED_TRACE(rows[i].uid);
        EXPECT_NEAR(after[i].partsPerMillion, rows[i].partsPerMillion, 0.2);
        EXPECT_EQ(after[i].resynchronisations, 0U);
        EXPECT_EQ(after[i].lostFrames, before[i].lostFrames);
        const size_t block = static_cast<size_t>(rows[i].rate) / 10;
        ASSERT_GT(recordings[i].size(), 200 * block);
        for (size_t end = recordings[i].size(); end > 100 * block; end -= block) {
            const SineFit fit =
                SineFit::nearTo(std::span(recordings[i]).subspan(end - block, block), 1000.0, rows[i].rate);
            EXPECT_NEAR(fit.amplitude, 0.5, 1e-3);
            EXPECT_GE(fit.signalToNoise, 100.0) << end;
        }
    }
}

TEST_F(AggregateDevices, runsDevicesOfOneClockInOneCycle)
{
    std::vector<float> recording;
    const SimulatedDeviceBuilder speakers =
        aDevice().uid("b").outputs(1).clockDomain(7).playsInto(sinkTo(recording));
    SimulatedDeviceBuilder microphones = aDevice().uid("a").inputs(1).inputs(3).clockDomain(7);
    hal->plug(microphones.bufferFrameSize(256).hears(simulatedRamp()));
    hal->plug(speakers);
    const AudioObjectID device = makeAggregate(*model, {"a", "b"});
    const AudioObjectID all[] = {device, hal->deviceID("a"), hal->deviceID("b")};
    std::deque<RecordingListener> overloads;
    for (const AudioObjectID each : all)
        overloads.emplace_back(*model, each, at(kAudioDeviceProcessorOverload));
    const Copier copier(*model, device);
    advance(0.5);
    EXPECT_FALSE(subDeviceStatus(*model, device)[1].isCompensated);
    for (size_t i = 0; i < recording.size(); ++i)
        ASSERT_EQ(recording[i], static_cast<float>(i) * rampStep) << "every bit, from the first frame";
    for (const AudioObjectID each : all)
        EXPECT_EQ(read<uint32_t>(each, kAudioDevicePropertyDeviceIsRunning), 1U);

    const auto frames = at(kAudioDevicePropertyBufferFrameSize);
    EXPECT_EQ(writeValue(*model, device, frames, 128U), kAudioHardwareNoError);
    for (const AudioObjectID each : all)
        EXPECT_EQ(readValue<uint32_t>(*model, each, frames), 128U);
    hal->loseCycles("b", 2);
    advance(0.1);
    for (const auto& each : overloads)
        EXPECT_EQ(each.count(), 1U);
    EXPECT_EQ(copier.lostFrames, 2 * 128U);

    hal->unplug("b");
    advance(0.5);
    recording.clear();
    hal->plug(speakers);
    advance(0.5);
    EXPECT_GT(recording.size(), 20000U);
    EXPECT_GT(recording.back(), 0.0F);
    EXPECT_EQ(copier.backwards, 0U);
    EXPECT_EQ(copier.lostFrames, 2 * 128U) << "a member goes and comes without a restart";

    std::vector<std::optional<double>> rates;
    const RunningProc proc(*model, device, eachCycle([&](const IOCycle&) {
        const CXRealtimeExemption exemption("the test makes the change, not the library");
        rates.push_back(read<double>(device, kAudioDevicePropertyNominalSampleRate));
        for (const char* uid : {"a", "b"})
            if (rates.size() == 1)
                hal->reconfigure(uid, [](SimulatedDeviceBuilder& each) { each.sampleRate(96000.0); });
    }));
    advance(0.2); // the aggregate's restart may take up the first half
    EXPECT_EQ(rates.at(1), 96000.0) << "before the restart, too";
}

TEST_F(AggregateDevices, runsOnAfterAllOfOneCycleWereGone)
{
    SimulatedDeviceBuilder one = aDevice().uid("a").inputs(1).outputs(1).clockDomain(7), other = one;
    one.hears(simulatedRamp());
    hal->plug(one);
    hal->plug(other.uid("b"));
    const Copier copier(*model, makeAggregate(*model, {"a", "b"}));
    for (int round = 0; round < 50; ++round) { // the aggregate follows on its own queue, often later
        hal->unplug("a");
        hal->unplug("b");
        hal->plug(one);
        advance(0.1);
        const uint64_t before = copier.cycles;
        hal->plug(other);
        advance(0.1);
        ASSERT_NEAR(static_cast<double>(copier.cycles - before), 9.0, 2.0) << round;
    }
    EXPECT_EQ(copier.backwards, 0U);
}

TEST_F(AggregateDevices, runsOnWhileSubDevicesGoAndComeBack)
{
    const SimulatedDeviceBuilder clock = aDevice().uid("clock").inputs(1).hears(simulatedTone(500.0));
    const SimulatedDeviceBuilder other =
        aDevice().uid("other").inputs(1).drift(-50.0).hears(simulatedTone(700.0));
    hal->plug(clock);
    const AudioObjectID device = makeAggregate(*model, {"clock", "other"});
    Copier copier(*model, device);
    advance(0.5);
    EXPECT_EQ(channelsOf(*model, device, input), 1U) << "nothing is known of one that was never there";

    hal->plug(other);
    advance(1.0);
    EXPECT_EQ(channelsOf(*model, device, input), 2U);
    expectSound(copier, {0, 1});
    hal->unplug("other");
    advance(0.2);
    expectSound(copier, {0});
    EXPECT_EQ(channelsOf(*model, device, input), 2U) << "its place is kept";
    hal->plug(other);
    advance(0.5);
    expectSound(copier, {0, 1});

    hal->unplug("clock"); // the next device becomes the clock
    advance(0.2);
    expectSound(copier, {1});
    EXPECT_TRUE(subDeviceStatus(*model, device)[1].isClock);
    hal->unplug("other"); // no device is left: the next one plugged becomes the clock
    advance(0.2);
    hal->plug(clock);
    advance(0.5);
    EXPECT_TRUE(subDeviceStatus(*model, device)[0].isClock);
    EXPECT_EQ(copier.backwards + copier.withoutData, 0U);
}

TEST_F(AggregateDevices, oneThatFailedBesideTheCycleAndThenJoinedItIsStartedWhenItLeaves)
{
    hal->plug(aDevice().uid("clock").inputs(1).clockDomain(7));
    hal->plug(aDevice().uid("other").inputs(1).clockDomain(7).sampleRate(44100.0));
    const AudioObjectID device = makeAggregate(*model, {"clock", "other"});
    const Copier copier(*model, device);
    const auto change = [&](double rate) {
        hal->reconfigure("other", [rate](SimulatedDeviceBuilder& other) { other.sampleRate(rate); });
        advance(0.1);
        return subDeviceStatus(*model, device)[1].isRunning;
    };
    hal->failStarts(kAudioHardwareUnspecifiedError);
    EXPECT_FALSE(change(96000.0));
    hal->failStarts(kAudioHardwareNoError);
    EXPECT_TRUE(change(48000.0));
    EXPECT_TRUE(change(96000.0));
}

TEST_F(AggregateDevices, survivesWhatSubDevicesDo)
{
    hal->plug(aDevice().uid("clock").inputs(2).outputs(2));
    hal->plug(aDevice().uid("other").inputs(2).outputs(2).drift(100.0).hears(simulatedTone(700.0)));
    const AudioObjectID device = makeAggregate(*model, {"clock", "other"});
    Copier copier(*model, device);
    std::set<uint32_t> streams{1};
    const auto change = [&](const std::string& uid, const CXBlock<void(SimulatedDeviceBuilder&)>& how) {
        hal->reconfigure(uid, how);
        advance(1.0);
        expectSound(copier, streams);
    };
    advance(20.0);
    for (int loss = 0; loss < 30; ++loss) {
        hal->loseCycles("other", 1);
        advance(0.1);
        EXPECT_NEAR(subDeviceStatus(*model, device)[1].partsPerMillion, 100.0, 1.0) << "not another rate";
    }
    hal->loseCycles("other", 90);
    change("other", [](SimulatedDeviceBuilder& other) { other.sampleRate(96000.0); });
    change("other", [](SimulatedDeviceBuilder& other) { other.bufferFrameSize(2048); });
    hal->loseCycles("clock", 90);
    change("clock", [](SimulatedDeviceBuilder& clock) { clock.bufferFrameSize(64); });
    change("clock", [](SimulatedDeviceBuilder& clock) { clock.sampleRate(44100.0); });
    EXPECT_EQ(readValue<double>(*model, device, at(kAudioDevicePropertyNominalSampleRate)), 44100.0);
    streams = {1, 2};
    change("other", [](SimulatedDeviceBuilder& other) { other.inputs(6); });
    EXPECT_EQ(channelsOf(*model, device, input), 10U);
    change("other", [](SimulatedDeviceBuilder& other) { other.drift(-81250.0); }); // far off nominal
    EXPECT_NEAR(subDeviceStatus(*model, device)[1].partsPerMillion, -81250.0, 100.0);
    EXPECT_EQ(copier.backwards, 0U);
    EXPECT_EQ(model->destroyAggregateDevice(device), kAudioHardwareNoError); // while IO runs
    const uint64_t cycles = copier.cycles;
    advance(0.3);
    EXPECT_EQ(copier.cycles, cycles);
}

/// Each device has an IO thread: sub-devices leave and join while cycles run, and runs end.
TEST(AggregateDevicesInRealTime, keepsGoingWhileSubDevicesComeAndGo)
{
    const CXRef<SimulatedHardware> hal = SimulatedHardware::init(SimulatedClock::RealTime);
    const CXRef<HALModel> model = HALModel::initWithDriver(hal);
    const SimulatedDeviceBuilder shape = aDevice().inputs(2).outputs(2).bufferFrameSize(64).drift(50.0);
    const std::vector<std::string> uids{"a", "b", "c"};
    const auto plug = [&](const std::string& uid) { hal->plug(SimulatedDeviceBuilder(shape).uid(uid)); };
    std::ranges::for_each(uids, plug);
    const AudioObjectID device = makeAggregate(*model, uids);
    CycleWitness witness;
    const RunningProc proc(*model, device, witnessing(witness));
    Random random(11);
    for (int round = 0; round < 60; ++round) {
        const std::string& uid = uids[random.below(3)];
        if (random.below(4) == 0)
            hal->reconfigure(uid, [&](auto& each) { each.bufferFrameSize(32U << random.below(4)); });
        else if (!hal->unplug(uid))
            plug(uid);
        subDeviceStatus(*model, device);
        sleepForMilliseconds(static_cast<int>(random.below(20)));
    }
    std::ranges::for_each(uids, plug); // those that are plugged in are refused
    hal->settle();
    EXPECT_TRUE(witness.waitForMore(20));
    EXPECT_EQ(witness.backwards, 0U);
    for (const AudioAggregateSubDeviceStatus& each : subDeviceStatus(*model, device))
        EXPECT_EQ(each.isRunning, 1U);
    EXPECT_EQ(model->destroyAggregateDevice(device), kAudioHardwareNoError);
}

} // namespace
