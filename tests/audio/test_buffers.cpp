#include "CXErrorAdditions.h"
#include "CXRealtime.h"
#include "DXRBuffer.h"
#include "DXRCoreBuffer.h"
#include "GuardedMemory.h"
#include "InstructionSet.h"
#include "Random.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <functional>
#include <limits>

namespace {

// Reference implementations for one sample.
float mixed(float a, float b)
{
    const float sum = a + b;
    return sum < -1 ? -1 : sum > 1 ? 1 : sum;
}

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

int16_t mixedInt16(float x, int16_t v)
{
    const int sum = toInt16(x) + v;
    return static_cast<int16_t>(sum > 32767 ? 32767 : sum < -32767 ? -32768 : sum);
}

bool same(float a, float b)
{
    return std::memcmp(&a, &b, sizeof a) == 0 || (std::isnan(a) && std::isnan(b));
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
    case 1: { // arbitrary bits
        const uint32_t bits = random.below(UINT32_MAX);
        float value = 0;
        std::memcpy(&value, &bits, sizeof value);
        return value;
    }
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

    template <class Transfer, class Rule> void check(Transfer transfer, Rule rule)
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

private:
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

void checkFloats(Transfers<float>& all)
{
    const auto copyTo = [](float own, float& foreign) { foreign = own; };
    const auto copyFrom = [](float& own, float foreign) { own = foreign; };
    const auto mixTo = [](float own, float& foreign) { foreign = mixed(own, foreign); };
    const auto mixFrom = [](float& own, float foreign) { own = mixed(foreign, own); };
    all.check(&DXRBuffer::copyToInterleavedFloats, copyTo);
    all.check(&DXRBuffer::copyToDeinterleavedFloats, copyTo);
    all.check(&DXRBuffer::mixToInterleavedFloats, mixTo);
    all.check(&DXRBuffer::mixToDeinterleavedFloats, mixTo);
    all.check(&DXRBuffer::copyFromInterleavedFloats, copyFrom);
    all.check(&DXRBuffer::copyFromDeinterleavedFloats, copyFrom);
    all.check(&DXRBuffer::mixFromInterleavedFloats, mixFrom);
    all.check(&DXRBuffer::mixFromDeinterleavedFloats, mixFrom);
}

void checkInt16s(Transfers<int16_t>& all)
{
    const auto copyTo = [](float own, int16_t& foreign) { foreign = toInt16(own); };
    const auto copyFrom = [](float& own, int16_t foreign) { own = fromInt16(foreign); };
    const auto mixTo = [](float own, int16_t& foreign) { foreign = mixedInt16(own, foreign); };
    const auto mixFrom = [](float& own, int16_t foreign) { own = mixed(fromInt16(foreign), own); };
    all.check(&DXRBuffer::copyToInterleavedInt16s, copyTo);
    all.check(&DXRBuffer::copyToDeinterleavedInt16s, copyTo);
    all.check(&DXRBuffer::mixToInterleavedInt16s, mixTo);
    all.check(&DXRBuffer::mixToDeinterleavedInt16s, mixTo);
    all.check(&DXRBuffer::copyFromInterleavedInt16s, copyFrom);
    all.check(&DXRBuffer::copyFromDeinterleavedInt16s, copyFrom);
    all.check(&DXRBuffer::mixFromInterleavedInt16s, mixFrom);
    all.check(&DXRBuffer::mixFromDeinterleavedInt16s, mixFrom);
}

TEST(DXRBuffer, movesEverySampleByTheRuleOnEveryInstructionSet)
{
    Random random(99);
    for (const InstructionSet& set : availableInstructionSets()) {
        useInstructionSet(set);
        for (int round = 0; round < 150; ++round) {
            const uint32_t channels =
                round < 40 ? 1 + static_cast<uint32_t>(round) % 20 : 1 + random.below(9);
            const uint32_t frames = random.below(random.below(4) == 0 ? 900 : 70);
            const auto guard = round % 2 ? GuardedMemory::Guard::Behind : GuardedMemory::Guard::Before;
            Transfers<float> floats(channels, frames, guard, random);
            Transfers<int16_t> shorts(channels, frames, guard, random);
            ASSERT_NO_FATAL_FAILURE(checkFloats(floats)) << set.name;
            ASSERT_NO_FATAL_FAILURE(checkInt16s(shorts)) << set.name;
        }
    }
}

TEST(DXRBuffer, silencesACopyBetweenFormatsAndAddsNothing)
{
    const CXRef<DXRBuffer> buffer = DXRBuffer::initWithSampleRate(44100, 8, 2);
    const auto loudness = [](const DXRBuffer& b) { return b.samples()[0]; };
    const auto loud = [](double rate, uint32_t frames, uint32_t channels) {
        CXRef<DXRBuffer> made = DXRBuffer::initWithSampleRate(rate, frames, channels, false);
        std::fill_n(made->samples(), size_t{frames} * channels, 0.25F);
        return made;
    };
    for (const CXRef<DXRBuffer>& other : {loud(48000, 8, 2), loud(44100, 7, 2), loud(44100, 8, 1), {}}) {
        EXPECT_FALSE(buffer->isEqualCFS(other.get()));
        const CXRealtimeScope realtime;
        buffer->samples()[0] = 0.5F;
        buffer->mixFromBuffer(other.get());
        buffer->mixToBuffer(other.get());
        EXPECT_EQ(loudness(*buffer), 0.5F);
        buffer->copyToBuffer(other.get());
        if (other) {
            EXPECT_EQ(loudness(*other), 0);
        }
        buffer->copyFromBuffer(other.get());
        EXPECT_EQ(loudness(*buffer), 0);
    }
    const CXRef<DXRBuffer> alike = loud(44100, 8, 2), copy = loud(44100, 8, 2);
    {
        const CXRealtimeScope realtime;
        buffer->mixFromBuffer(alike.get());
        buffer->mixToBuffer(alike.get());
        EXPECT_EQ(loudness(*alike), 0.5F);
        copy->copyFromBuffer(alike.get());
        alike->mute();
        EXPECT_EQ(loudness(*copy), 0.5F);
        copy->copyToBuffer(alike.get());
        EXPECT_EQ(loudness(*alike), 0.5F);
    }
    alike->mute();
    EXPECT_EQ(loudness(*copy->copy()), 0.5F);
    EXPECT_TRUE(copy->isEqualCFS(alike.get()));
    EXPECT_THROW(DXRBuffer::init(), CXException);
    EXPECT_EQ(loudness(*loud(std::numeric_limits<double>::quiet_NaN(), 8, 2)->copy()), 0.25F);
    for (const uint32_t side : {1U << 31, UINT32_MAX}) // a size beyond 64 bits, and one beyond any memory
        EXPECT_FALSE(DXRBuffer::initWithSampleRate(48000, side, side));
    EXPECT_NE(copy->description().find(", 2/8@44100hz>"), std::string::npos);
}

TEST(DXRBuffer, showsItsChannelsAndFrames)
{
    const CXRef<DXRBuffer> buffer = DXRBuffer::initWithSampleRate(48000, 5, 3);
    uint32_t seen = 0; // the visited channels, as decimal digits
    const DXRBuffer::ChannelBlock fillChannel = [&](uint32_t channel, uint32_t frames, float* samples,
                                                    uint32_t stride) {
        seen = 10 * seen + channel;
        EXPECT_EQ(frames, 5U);
        for (uint32_t k = 0; k < frames; ++k)
            samples[size_t{k} * stride] = static_cast<float>(10 * k + channel);
    };
    int calls = 0;
    const DXRBuffer::FramesBlock check = [&](uint32_t channels, uint32_t frames, float* const* samples,
                                             const uint32_t* strides) {
        ++calls;
        EXPECT_EQ(channels, 3U);
        for (uint32_t k = 0; k < frames; ++k)
            for (uint32_t c = 0; c < channels; ++c)
                EXPECT_EQ(samples[c][size_t{k} * strides[c]], static_cast<float>(10 * k + c + 1));
    };
    {
        const CXRealtimeScope realtime;
        for (const uint32_t outside : {0U, 4U, UINT32_MAX})
            buffer->processChannel(outside, fillChannel);
        buffer->processChannel(1, nullptr);
        EXPECT_EQ(seen, 0U);
        buffer->processChannelsWithBlock(fillChannel);
        buffer->processFramesWithBlock(check);
    }
    EXPECT_EQ(seen, 123U);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(buffer->samples()[14], 43);
}

TEST(DXRCoreBuffer, isAKeyByItsThreeFields)
{
    int data[2] = {};
    const AudioBuffer one{2, 8, data};
    const CXRef<DXRCoreBuffer> key = DXRCoreBuffer::initWithBuffer(&one);
    EXPECT_TRUE(key->isEqual(DXRCoreBuffer::initWithBuffer(&one).get()));
    EXPECT_EQ(key->hash(), DXRCoreBuffer::initWithBuffer(&one)->hash());
    for (const AudioBuffer& other :
         {AudioBuffer{1, 8, data}, AudioBuffer{2, 4, data}, AudioBuffer{2, 8, data + 1}})
        EXPECT_FALSE(key->isEqual(DXRCoreBuffer::initWithBuffer(&other).get()));
    EXPECT_FALSE(key->isEqual(nullptr));
    EXPECT_FALSE(DXRCoreBuffer::initWithBuffer(nullptr));
}

} // namespace
