#include "CXErrorAdditions.h"
#include "CXRealtime.h"
#include "DXRBuffer.h"
#include "DXRCoreBuffer.h"
#include "GuardedMemory.h"
#include "InstructionSet.h"
#include "Random.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cmath>
#include <deque>
#include <functional>
#include <limits>

namespace {

// Reference implementations for one sample.
template <class To> To converted(float x)
{
    if constexpr (std::is_same_v<To, float>)
        return x;
    else if (std::isnan(x))
        return 0;
    else if (x < 0)
        return static_cast<To>(x * 32768 < -32768 ? -32768 : std::trunc(x * 32768 - 0.5F));
    else
        return static_cast<To>(x * 32767 > 32767 ? 32767 : std::trunc(x * 32767 + 0.5F));
}
template <class To> To converted(int16_t v)
{
    return static_cast<float>(v) * (v < 0 ? 3.0517578e-5F : 3.051851e-5F);
}

float sum(float a, float b)
{
    return std::isnan(a + b) ? a + b : std::clamp(a + b, -1.0F, 1.0F);
}
int16_t sum(int16_t a, int16_t b)
{
    return static_cast<int16_t>(std::clamp(a + b, -32768, 32767));
}

bool same(float a, float b) // also for 16-bit samples, which a float holds exactly
{
    return std::bit_cast<uint32_t>(a) == std::bit_cast<uint32_t>(b) || (std::isnan(a) && std::isnan(b));
}

float anyFloat(Random& random)
{
    constexpr float infinity = std::numeric_limits<float>::infinity();
    const float limits[] = {
        0,     -0.0F,  1,      -1,      0.5F,     -0.5F,     1.0000001F,    -1.0000001F,        0.99999994F,
        1e30F, -1e30F, 1e-40F, -1e-40F, infinity, -infinity, std::nanf(""), 0.49999997F / 32767};
    switch (random.below(4)) {
    case 0:
        return limits[random.below(std::size(limits))];
    case 1:
        return std::bit_cast<float>(random.below(UINT32_MAX));
    case 2: // near the rounding boundaries of 16-bit samples
        return (static_cast<float>(random.below(65536)) - 32768 + random.between(0.499F, 0.501F)) / 32767.5F;
    default:
        return random.between(-1.2F, 1.2F);
    }
}

template <class Sample> void fill(std::span<Sample> samples, Random& random)
{
    for (Sample& sample : samples)
        if constexpr (std::is_same_v<Sample, float>)
            sample = anyFloat(random);
        else
            sample = static_cast<int16_t>(random.below(65536) - 32768);
}

/// A format, and a check of transfers between a buffer of that format and the caller's memory, which ends or
/// begins at an inaccessible page. The rule for one sample changes the buffer's sample or the caller's.
struct Transfers {
    uint32_t channels, frames;
    GuardedMemory::Guard guard;
    Random& random;

    template <class Sample, class Rule, class Transfer> void check(const Rule& rule, Transfer transfer) const
    {
        constexpr bool isPlanar = std::is_invocable_v<Transfer, DXRBuffer&, Sample**>;
        const size_t count = size_t{channels} * frames;
        const CXRef<DXRBuffer> buffer = DXRBuffer::initWithSampleRate(48000, frames, channels);
        fill(std::span(buffer->samples(), count), random);
        std::deque<GuardedMemory> memory; // one array per channel, or one of all frames
        std::vector<Sample*> arrays;
        for (uint32_t c = 0; c < (isPlanar ? channels : 1); ++c) {
            memory.emplace_back((isPlanar ? frames : count) * sizeof(Sample), guard);
            arrays.push_back(memory.back().of<Sample>().data());
            fill(memory.back().of<Sample>(), random);
        }
        const auto foreign = [&](size_t i) -> Sample& {
            return isPlanar ? arrays[i % channels][i / channels] : arrays[0][i];
        };
        std::vector<float> own(buffer->samples(), buffer->samples() + count);
        std::vector<Sample> expected;
        for (size_t i = 0; i < count; ++i) {
            expected.push_back(foreign(i));
            rule(own[i], expected[i]);
        }
        {
            const CXRealtimeScope realtime;
            if constexpr (isPlanar)
                std::invoke(transfer, *buffer, arrays.data());
            else
                std::invoke(transfer, *buffer, arrays[0]);
        }
        for (size_t i = 0; i < count; ++i)
            ASSERT_TRUE(same(foreign(i), expected[i]) && same(buffer->samples()[i], own[i]))
                << "sample " << i << " of " << frames << "x" << channels << ": " << foreign(i);
    }
};

TEST(DXRBuffer, movesEverySampleByTheRuleOnEveryInstructionSet)
{
    const auto copyTo = []<class To>(float own, To& foreign) { foreign = converted<To>(own); };
    const auto copyFrom = [](float& own, auto foreign) { own = converted<float>(foreign); };
    const auto mixTo = []<class To>(float own, To& foreign) { foreign = sum(foreign, converted<To>(own)); };
    const auto mixFrom = [](float& own, auto foreign) { own = sum(own, converted<float>(foreign)); };
    Random random(99);
    for (const InstructionSet& set : availableInstructionSets()) {
        SCOPED_TRACE(set.name);
        useInstructionSet(set);
        for (uint32_t round = 0; round < 150 && !HasFailure(); ++round) {
            const uint32_t channels = round < 40 ? 1 + round % 20 : 1 + random.below(9);
            const uint32_t frames = random.below(random.below(4) == 0 ? 900 : 70);
            const auto guard = round % 2 ? GuardedMemory::Guard::Behind : GuardedMemory::Guard::Before;
            const Transfers all{channels, frames, guard, random};
            all.check<float>(copyTo, &DXRBuffer::copyToInterleavedFloats);
            all.check<float>(copyTo, &DXRBuffer::copyToDeinterleavedFloats);
            all.check<float>(mixTo, &DXRBuffer::mixToInterleavedFloats);
            all.check<float>(mixTo, &DXRBuffer::mixToDeinterleavedFloats);
            all.check<float>(copyFrom, &DXRBuffer::copyFromInterleavedFloats);
            all.check<float>(copyFrom, &DXRBuffer::copyFromDeinterleavedFloats);
            all.check<float>(mixFrom, &DXRBuffer::mixFromInterleavedFloats);
            all.check<float>(mixFrom, &DXRBuffer::mixFromDeinterleavedFloats);
            all.check<int16_t>(copyTo, &DXRBuffer::copyToInterleavedInt16s);
            all.check<int16_t>(copyTo, &DXRBuffer::copyToDeinterleavedInt16s);
            all.check<int16_t>(mixTo, &DXRBuffer::mixToInterleavedInt16s);
            all.check<int16_t>(mixTo, &DXRBuffer::mixToDeinterleavedInt16s);
            all.check<int16_t>(copyFrom, &DXRBuffer::copyFromInterleavedInt16s);
            all.check<int16_t>(copyFrom, &DXRBuffer::copyFromDeinterleavedInt16s);
            all.check<int16_t>(mixFrom, &DXRBuffer::mixFromInterleavedInt16s);
            all.check<int16_t>(mixFrom, &DXRBuffer::mixFromDeinterleavedInt16s);
        }
    }
}

TEST(DXRBuffer, silencesACopyBetweenFormatsAndAddsNothing)
{
    const auto loudness = [](const DXRBuffer& b) { return b.samples()[0]; };
    const auto loud = [](double rate, uint32_t frames, uint32_t channels) {
        CXRef<DXRBuffer> made = DXRBuffer::initWithSampleRate(rate, frames, channels, false);
        std::fill_n(made->samples(), size_t{frames} * channels, 0.25F);
        return made;
    };
    const CXRef<DXRBuffer> buffer = loud(44100, 8, 2), alike = loud(44100, 8, 2);
    for (const CXRef<DXRBuffer>& other :
         {alike, loud(48000, 8, 2), loud(44100, 7, 2), loud(44100, 8, 1), {}}) {
        const bool isAlike = other == alike;
        EXPECT_EQ(buffer->isEqualCFS(other.get()), isAlike);
        const CXRealtimeScope realtime;
        buffer->samples()[0] = 0.5F;
        buffer->mixFromBuffer(other.get());
        EXPECT_EQ(loudness(*buffer), isAlike ? 0.75F : 0.5F);
        buffer->mixToBuffer(other.get());
        EXPECT_TRUE(!other || loudness(*other) == (isAlike ? 1.0F : 0.25F));
        buffer->copyToBuffer(other.get());
        EXPECT_TRUE(!other || loudness(*other) == (isAlike ? 0.75F : 0.0F));
        buffer->samples()[0] = 0.5F;
        buffer->copyFromBuffer(other.get());
        EXPECT_EQ(loudness(*buffer), isAlike ? 0.75F : 0.0F);
    }
    EXPECT_EQ(loudness(*alike->copy()), 0.75F);
    EXPECT_EQ(loudness(*loud(std::numeric_limits<double>::quiet_NaN(), 8, 2)->copy()), 0.25F);
    EXPECT_THROW(DXRBuffer::init(), CXException);
    for (const uint32_t side : {1U << 31, UINT32_MAX}) // a size beyond 64 bits, and one beyond any memory
        EXPECT_FALSE(DXRBuffer::initWithSampleRate(48000, side, side));
    DXRBuffer::initWithSampleRate(48000, UINT32_MAX, 0)->copyToDeinterleavedFloats(nullptr); // returns
}

TEST(DXRBuffer, showsItsChannelsAndFrames)
{
    const CXRef<DXRBuffer> buffer = DXRBuffer::initWithSampleRate(48000, 2, 3);
    std::string seen;
    const auto see = [&seen](auto value) { seen += std::to_string(static_cast<int>(value)) + ' '; };
    const DXRBuffer::ChannelBlock number = [&](uint32_t channel, auto frames, float* samples, auto stride) {
        see(channel);
        for (uint32_t k = 0; k < frames; ++k)
            samples[size_t{k} * stride] = static_cast<float>(10 * (k + 1) + channel);
    };
    for (const uint32_t outside : {0U, 4U, UINT32_MAX})
        buffer->processChannel(outside, number);
    buffer->processChannel(1, nullptr);
    buffer->processChannelsWithBlock(number);
    buffer->processFramesWithBlock([&](auto channels, auto frames, auto samples, auto strides) {
        for (uint32_t k = 0; k < frames; ++k)
            for (uint32_t c = 0; c < channels; ++c)
                see(samples[c][size_t{k} * strides[c]]);
    });
    EXPECT_EQ(seen, "1 2 3 11 12 13 21 22 23 ");
    EXPECT_EQ(buffer->samples()[4], 22);
}

TEST(DXRCoreBuffer, isAKeyByItsThreeFields)
{
    int data[2] = {};
    const auto keyOf = [](const AudioBuffer& buffer) { return DXRCoreBuffer::initWithBuffer(&buffer); };
    const CXRef<DXRCoreBuffer> key = keyOf({2, 8, data});
    EXPECT_TRUE(key->isEqual(keyOf({2, 8, data}).get()));
    EXPECT_EQ(key->hash(), keyOf({2, 8, data})->hash());
    for (const AudioBuffer& other : {AudioBuffer{1, 8, data}, {2, 4, data}, {2, 8, data + 1}})
        EXPECT_FALSE(key->isEqual(keyOf(other).get()));
    EXPECT_FALSE(DXRCoreBuffer::initWithBuffer(nullptr));
}

} // namespace
