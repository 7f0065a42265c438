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
#include <functional>
#include <limits>

namespace {

// Reference implementations for one sample.
int16_t toInt16(float x)
{
    if (std::isnan(x))
        return 0;
    if (x < 0)
        return static_cast<int16_t>(x * 32768 < -32768 ? -32768 : std::trunc(x * 32768 - 0.5F));
    return static_cast<int16_t>(x * 32767 > 32767 ? 32767 : std::trunc(x * 32767 + 0.5F));
}

float fromInt16(int16_t v)
{
    return static_cast<float>(v) * (v < 0 ? 3.0517578e-5F : 3.051851e-5F);
}

template <class Sample> void copy(float from, Sample& to)
{
    if constexpr (std::is_same_v<Sample, float>)
        to = from;
    else
        to = toInt16(from);
}
void copy(int16_t from, float& to)
{
    to = fromInt16(from);
}

template <class Sample> void mix(float from, Sample& to)
{
    if constexpr (std::is_same_v<Sample, float>)
        to = std::isnan(from + to) ? from + to : std::clamp(from + to, -1.0F, 1.0F);
    else
        to = static_cast<int16_t>(std::clamp(toInt16(from) + to, -32768, 32767));
}
void mix(int16_t from, float& to)
{
    mix(fromInt16(from), to);
}

bool same(float a, float b)
{
    return std::bit_cast<uint32_t>(a) == std::bit_cast<uint32_t>(b) || (std::isnan(a) && std::isnan(b));
}
bool same(int16_t a, int16_t b)
{
    return a == b;
}

float anyFloat(Random& random)
{
    constexpr float infinity = std::numeric_limits<float>::infinity();
    constexpr float limits[] = {
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

void fill(std::span<float> samples, Random& random)
{
    for (float& sample : samples)
        sample = anyFloat(random);
}
void fill(std::span<int16_t> samples, Random& random)
{
    for (int16_t& sample : samples)
        sample = static_cast<int16_t>(random.below(65536) - 32768);
}

/// Caller's memory in both layouts. check() compares a transfer between it and a buffer with a rule for one
/// sample, which changes the buffer's sample or the caller's.
template <class Sample> class Transfers {
public:
    Transfers(uint32_t channels, uint32_t frames, GuardedMemory::Guard guard, Random& random)
        : _channels(channels), _frames(frames), _random(random),
          _buffer(DXRBuffer::initWithSampleRate(48000, frames, channels)),
          _interleaved(size_t{channels} * frames * sizeof(Sample), guard)
    {
        for (uint32_t c = 0; c < channels; ++c) {
            _planes.push_back(std::make_unique<GuardedMemory>(frames * sizeof(Sample), guard));
            _pointers.push_back(_planes.back()->template of<Sample>().data());
        }
    }

    template <class Rule, class... Transfer> void check(const Rule& rule, Transfer... transfers)
    {
        (_check(rule, transfers), ...);
    }

private:
    template <class Rule, class Transfer> void _check(const Rule& rule, Transfer transfer)
    {
        constexpr bool isPlanar = std::is_invocable_v<Transfer, DXRBuffer&, Sample**>;
        _fill();
        const size_t count = size_t{_channels} * _frames;
        std::vector<float> own(_buffer->samples(), _buffer->samples() + count);
        std::vector<Sample> foreign;
        for (size_t i = 0; i < count; ++i) {
            foreign.push_back(_foreign(i, isPlanar));
            rule(own[i], foreign[i]);
        }
        const CXRealtimeScope realtime;
        if constexpr (isPlanar)
            std::invoke(transfer, *_buffer, _pointers.data());
        else
            std::invoke(transfer, *_buffer, _interleaved.template of<Sample>().data());
        for (size_t i = 0; i < count; ++i) {
            const CXRealtimeExemption exemption("a failure's text");
            ASSERT_TRUE(same(_foreign(i, isPlanar), foreign[i]) && same(_buffer->samples()[i], own[i]))
                << "sample " << i << " of " << _frames << "x" << _channels << ": " << _foreign(i, isPlanar)
                << " for " << foreign[i] << ", " << _buffer->samples()[i] << " for " << own[i];
        }
    }

    Sample& _foreign(size_t i, bool isPlanar)
    {
        return isPlanar ? _pointers[i % _channels][i / _channels] : _interleaved.template of<Sample>()[i];
    }
    void _fill()
    {
        fill(std::span(_buffer->samples(), size_t{_channels} * _frames), _random);
        fill(_interleaved.template of<Sample>(), _random);
        for (const auto& plane : _planes)
            fill(plane->template of<Sample>(), _random);
    }

    const uint32_t _channels, _frames;
    Random& _random;
    const CXRef<DXRBuffer> _buffer;
    GuardedMemory _interleaved;
    std::vector<std::unique_ptr<GuardedMemory>> _planes;
    std::vector<Sample*> _pointers;
};

TEST(DXRBuffer, movesEverySampleByTheRuleOnEveryInstructionSet)
{
    const auto copyTo = [](float own, auto& foreign) { copy(own, foreign); };
    const auto copyFrom = [](float& own, auto foreign) { copy(foreign, own); };
    const auto mixTo = [](float own, auto& foreign) { mix(own, foreign); };
    const auto mixFrom = [](float& own, auto foreign) { mix(foreign, own); };
    Random random(99);
    for (const InstructionSet& set : availableInstructionSets()) {
        SCOPED_TRACE(set.name);
        useInstructionSet(set);
        for (int round = 0; round < 150 && !HasFailure(); ++round) {
            const uint32_t channels =
                round < 40 ? 1 + static_cast<uint32_t>(round) % 20 : 1 + random.below(9);
            const uint32_t frames = random.below(random.below(4) == 0 ? 900 : 70);
            const auto guard = round % 2 ? GuardedMemory::Guard::Behind : GuardedMemory::Guard::Before;
            Transfers<float> floats(channels, frames, guard, random);
            floats.check(copyTo, &DXRBuffer::copyToInterleavedFloats, &DXRBuffer::copyToDeinterleavedFloats);
            floats.check(mixTo, &DXRBuffer::mixToInterleavedFloats, &DXRBuffer::mixToDeinterleavedFloats);
            floats.check(copyFrom, &DXRBuffer::copyFromInterleavedFloats,
                         &DXRBuffer::copyFromDeinterleavedFloats);
            floats.check(mixFrom, &DXRBuffer::mixFromInterleavedFloats,
                         &DXRBuffer::mixFromDeinterleavedFloats);
            Transfers<int16_t> shorts(channels, frames, guard, random);
            shorts.check(copyTo, &DXRBuffer::copyToInterleavedInt16s, &DXRBuffer::copyToDeinterleavedInt16s);
            shorts.check(mixTo, &DXRBuffer::mixToInterleavedInt16s, &DXRBuffer::mixToDeinterleavedInt16s);
            shorts.check(copyFrom, &DXRBuffer::copyFromInterleavedInt16s,
                         &DXRBuffer::copyFromDeinterleavedInt16s);
            shorts.check(mixFrom, &DXRBuffer::mixFromInterleavedInt16s,
                         &DXRBuffer::mixFromDeinterleavedInt16s);
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
    for (const CXRef<DXRBuffer>& other : {loud(48000, 8, 2), loud(44100, 7, 2), loud(44100, 8, 1), {}}) {
        EXPECT_FALSE(buffer->isEqualCFS(other.get()));
        const CXRealtimeScope realtime;
        buffer->samples()[0] = 0.5F;
        buffer->mixFromBuffer(other.get());
        buffer->mixToBuffer(other.get());
        EXPECT_EQ(loudness(*buffer), 0.5F);
        buffer->copyToBuffer(other.get());
        EXPECT_TRUE(!other || loudness(*other) == 0);
        buffer->copyFromBuffer(other.get());
        EXPECT_EQ(loudness(*buffer), 0);
    }
    {
        const CXRealtimeScope realtime;
        buffer->mixFromBuffer(alike.get());
        buffer->mixToBuffer(alike.get());
        EXPECT_EQ(loudness(*alike), 0.5F);
        buffer->copyFromBuffer(alike.get());
        alike->mute();
        EXPECT_EQ(loudness(*buffer), 0.5F);
        buffer->copyToBuffer(alike.get());
        EXPECT_EQ(loudness(*alike), 0.5F);
        alike->mute();
    }
    EXPECT_TRUE(buffer->isEqualCFS(alike.get()));
    EXPECT_EQ(loudness(*buffer->copy()), 0.5F);
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
    const auto see = [&seen](float sample) { seen += std::to_string(static_cast<int>(sample)) + ' '; };
    const DXRBuffer::ChannelBlock number = [&](uint32_t channel, uint32_t frames, float* samples,
                                               uint32_t stride) {
        see(static_cast<float>(channel));
        for (uint32_t k = 0; k < frames; ++k)
            samples[size_t{k} * stride] = static_cast<float>(10 * (k + 1) + channel);
    };
    for (const uint32_t outside : {0U, 4U, UINT32_MAX})
        buffer->processChannel(outside, number);
    buffer->processChannel(1, nullptr);
    buffer->processChannelsWithBlock(number);
    buffer->processFramesWithBlock(
        [&](uint32_t channels, uint32_t frames, float* const* samples, const uint32_t* strides) {
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
