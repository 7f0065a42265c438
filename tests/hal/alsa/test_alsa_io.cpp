#include "AlsaTest.h"

#include "CapturedLog.h"

namespace {

// The input returns what is played at the same sample time: times, latency and samples are exact on all
// cards.
TEST_F(AlsaTest, playsAndRecordsExactlyOnEveryKindOfCard)
{
    using Card = FakedCardOptions;
    struct {
        const char* why;
        void (*change)(Card&);
        float step = 1.0F / 1048576.0F;
    } const rows[] = {
        {"as most are", [](Card&) {}},
        {"its directions cannot be linked", [](Card& card) { card.canLink = false; }},
        {"no time stamps", [](Card& card) { card.hasStamps = false; }},
        {"read and write alone", [](Card& card) { card.mapsSamples = false; }},
        {"16 bits", [](Card& card) { card.formats = {FakedFormat::S16}; }, 1.0F / 32768.0F},
        {"24 bits", [](Card& card) { card.formats = {FakedFormat::S24}; }},
        {"24 bits in three bytes", [](Card& card) { card.formats = {FakedFormat::S24Packed}; }},
        {"float", [](Card& card) { card.formats = {FakedFormat::Float}; }},
        {"its position moves by a millisecond", [](Card& card) { card.granularity = 48; }},
        {"a clock that is fast", [](Card& card) { card.partsPerMillion = 300.0; }},
        {"one rate", [](Card& card) { card.rates = {44100}; }},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        Card card = aCard(row.why);
        row.change(card);
        const int number = FakedCards::plug(card);
        Ramp ramp(*hal, device(uidOf(row.why)));
        ramp.step = row.step;
        ASSERT_EQ(ramp.start(), kAudioHardwareNoError);
        EXPECT_TRUE(eventually([&] { return ramp.heard > 20'000; }));
        // Without linked starts, the two directions start at different times, so the latency is not 0.
        if (card.canLink) {
            EXPECT_EQ(ramp.latencyFrames, 0.0);
        }
        ramp.stop();
        EXPECT_EQ(ramp.jumps, 0U);
        EXPECT_EQ(ramp.backwards, 0U);
        EXPECT_EQ(ramp.lostFrames, 0U);
        FakedCards::unplug(number);
    }
}

TEST_F(AlsaTest, goesOnAfterWhatStopsACard)
{
    struct {
        const char* why;
        unsigned playback, capture;
        FakedFault fault;
        bool isReported = true;
    } const rows[] = {
        {"an overload", 2, 2, FakedFault::Overload},
        {"an overload of an input alone", 0, 2, FakedFault::Overload},
        {"an overload of an output alone", 2, 0, FakedFault::Overload},
        {"a suspend", 2, 2, FakedFault::Suspend},
        {"a card that is stuck for a while", 2, 2, FakedFault::Stuck, false},
        {"a wait that a signal ends", 2, 2, FakedFault::InterruptWaits, false},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        FakedCardOptions card = aCard(row.why);
        card.playback = row.playback;
        card.capture = row.capture;
        const int number = FakedCards::plug(card);
        const AudioObjectID id = device(uidOf(row.why));
        const RecordingListener overloads(*hal, id, at(kAudioDeviceProcessorOverload));
        Ramp ramp(*hal, id);
        ASSERT_EQ(ramp.start(), kAudioHardwareNoError);
        for (int round = 0; round < (row.fault == FakedFault::Stuck ? 1 : 3); ++round) {
            EXPECT_TRUE(ramp.waitForMore(5));
            FakedCards::set(number, row.fault);
            EXPECT_TRUE(row.fault != FakedFault::Stuck ||
                        becomes(0U, id, kAudioDevicePropertyDeviceIsRunning))
                << "that it delivers nothing is not reported";
            FakedCards::set(number, row.fault, false);
            const uint64_t heard = ramp.heard;
            EXPECT_TRUE(ramp.waitForMore(20));
            EXPECT_TRUE(!row.playback || !row.capture ||
                        eventually([&] { return ramp.heard > heard + 2000; }));
        }
        EXPECT_TRUE(becomes(1U, id, kAudioDevicePropertyDeviceIsRunning));
        EXPECT_TRUE(!row.isReported || eventually([&] { return overloads.count() > 0; }));
        ramp.stop();
        EXPECT_TRUE(row.fault != FakedFault::InterruptWaits || overloads.count() + ramp.lostFrames == 0);
        EXPECT_EQ(ramp.backwards, 0U);
        EXPECT_EQ(ramp.jumps, 0U);
        FakedCards::unplug(number);
    }
}

// A card that has disappeared is closed without log lines, and its device disappears at once.
TEST_F(AlsaTest, leavesACardThatIsGoneAlone)
{
    for (const bool mapsSamples : {true, false}) {
        const CapturedLog log;
        FakedCardOptions card = aCard();
        card.mapsSamples = mapsSamples;
        const int number = FakedCards::plug(card);
        Ramp ramp(*hal, device(uidOf("unit")));
        ASSERT_EQ(ramp.start(), kAudioHardwareNoError);
        FakedCards::unplug(number);
        EXPECT_TRUE(eventually([&] { return readDevices(*hal).empty(); }));
        ramp.stop();
        EXPECT_TRUE(eventually([&] { return FakedCards::openFiles(number) == 0; }));
        EXPECT_TRUE(log.lines().empty());
    }
}

TEST_F(AlsaTest, failsAStartThatCanDeliverNothing)
{
    for (const FakedFault fault : {FakedFault::Busy, FakedFault::Stuck, FakedFault::NoRights}) {
        const std::string name = "fault " + std::to_string(static_cast<int>(fault));
        SCOPED_TRACE(name);
        const int number = FakedCards::plug(aCard(name));
        const AudioObjectID id = device(uidOf(name));
        Ramp ramp(*hal, id);
        const CapturedLog log;
        FakedCards::set(number, fault);
        EXPECT_EQ(ramp.start(), kAudioHardwareUnspecifiedError);
        EXPECT_EQ(log.lines().size(), 1U) << "the reason";
        EXPECT_EQ(ramp.cycles, 0U);
        EXPECT_EQ(FakedCards::openFiles(number), 1U) << "its control device alone";
        FakedCards::set(number, fault, false);
        EXPECT_EQ(ramp.start(), kAudioHardwareNoError);
        ramp.stop();
        FakedCards::unplug(number);
    }
}

TEST_F(AlsaTest, measuresAClockAndKeepsItThroughAnOverload)
{
    FakedCards::plug(aCard("leader"));
    FakedCardOptions card = aCard("other");
    card.partsPerMillion = 200.0;
    const int number = FakedCards::plug(card);
    device(uidOf("leader"));
    const AudioObjectID other = device(uidOf("other"));
    const AudioObjectID both = makeAggregate(*hal, {uidOf("leader"), uidOf("other")});
    Ramp aggregate(*hal, both), alone(*hal, other);
    ASSERT_EQ(aggregate.start(), kAudioHardwareNoError);
    ASSERT_EQ(alone.start(), kAudioHardwareNoError);
    const auto isMeasured = [&] {
        const auto status = subDeviceStatus(*hal, both);
        return std::abs(alone.rateScalar - 1.0 / 1.0002) < 10e-6 && status.size() == 2 &&
               std::abs(status[1].partsPerMillion - 200.0) < 2.0;
    };
    EXPECT_TRUE(eventually(isMeasured)) << alone.rateScalar;
    FakedCards::set(number, FakedFault::Overload);
    EXPECT_TRUE(alone.waitForMore(50));
    EXPECT_TRUE(eventually(isMeasured)) << alone.rateScalar;
    aggregate.stop();
    hal->destroyAggregateDevice(both);
}

// Tests a part of the driver: how it derives sample times from a card's time stamps.
TEST(AlsaTimeline, keepsItsClockThroughAnInterruption)
{
    AlsaTimeline timeline;
    timeline.begin(48000.0);
    uint64_t now = 1'000'000'000'000;
    const auto cycle = [&](uint64_t number) {
        now += 512 * 1'000'000'000ULL / 48000;
        return timeline.advance(now, number * 512, number * 512, 512);
    };
    uint64_t last = 0;
    for (uint64_t number = 1; number <= 100; ++number)
        last = cycle(number).sampleTime;
    EXPECT_EQ(last, 512U * 100);
    timeline.interrupt();
    now += 1'000'000'000;
    const AlsaTimeline::Step after = cycle(1);
    EXPECT_NEAR(static_cast<double>(after.sampleTime - last), 48512.0, 2.0)
        << "the frames that were lost count";
    EXPECT_NEAR(after.rateRatio, 1.0, 1e-6);
}

const AlsaFormat& formatOf(snd_pcm_format_t number)
{
    return *std::ranges::find(AlsaFormat::all, number, &AlsaFormat::number);
}

TEST(AlsaFormat, roundsClipsAndKeepsWhatFits)
{
    struct {
        const char* why;
        float in;
        int32_t s16, s24, s32;
    } const rows[] = {
        {"full scale up", 1.0F, 32767, 8388607, 2147483520},
        {"full scale down", -1.0F, -32768, -8388608, INT32_MIN},
        {"beyond clips", 7.0F, 32767, 8388607, 2147483520},
        {"half a step rounds", -0.5F / 32768.0F, 0, -128, -32768},
        {"nothing", std::nanf(""), 0, 0, 0},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        std::byte ring[16];
        const auto encoded = [&](snd_pcm_format_t number, auto value, size_t size) {
            formatOf(number).encode(&row.in, 1, ring, 1, 1);
            std::memcpy(&value, ring, size);
            return value;
        };
        EXPECT_EQ(encoded(SND_PCM_FORMAT_S16, int16_t{0}, 2), row.s16);
        EXPECT_EQ(encoded(SND_PCM_FORMAT_S32, int32_t{0}, 4), row.s32);
        EXPECT_EQ(encoded(SND_PCM_FORMAT_S24, int32_t{0}, 4), row.s24);
        EXPECT_EQ(encoded(SND_PCM_FORMAT_S24_3LE, int32_t{0}, 3) << 8 >> 8, row.s24);
    }
    // More channels than the ring has, and fewer.
    const float wide[]{0.1F, 0.5F, 0.2F, -0.5F};
    int16_t narrow[3]{9, 9, 9};
    const AlsaFormat& shorts = formatOf(SND_PCM_FORMAT_S16);
    shorts.encode(wide, 2, reinterpret_cast<std::byte*>(narrow), 1, 2);
    EXPECT_EQ(narrow[1], 6554);
    EXPECT_EQ(narrow[2], 9);
    float back[4]{9, 9, 9, 9};
    shorts.decode(reinterpret_cast<std::byte*>(narrow), 1, back, 2, 2);
    EXPECT_EQ(back[1], 0.0F);
    EXPECT_NEAR(back[2], 0.2F, 1e-4F);
}

} // namespace
