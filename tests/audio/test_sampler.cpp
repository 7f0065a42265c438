#include "CXRealtime.h"
#include "GuardedMemory.h"
#include "InstructionSet.h"
#include "Random.h"
#include "SamplerReference.h"
#include "ausampler.h"

#include <gtest/gtest.h>

#include <bit>
#include <limits>
#include <memory>

namespace {

using Sampler = std::unique_ptr<ausampler, decltype(&ausampler_destroy)>;

Sampler aSampler(uint32_t channels)
{
    return {ausampler_create(channels), ausampler_destroy};
}

/// The bits of a sample; every NaN counts as the same.
uint32_t bitsOf(float sample)
{
    return std::isnan(sample) ? 0x7FC00000 : std::bit_cast<uint32_t>(sample);
}

enum class Layout { Interleaved, Noninterleaved, Scattered };
enum class Direction { Read, Write };

/// Frames of several channels in one of the layouts; each array ends or begins at an inaccessible page.
class Block {
public:
    Block(Layout layout, uint32_t channels, uint32_t frames, GuardedMemory::Guard guard, Random& random)
    {
        const bool isScattered = layout == Layout::Scattered;
        const bool isShared = layout == Layout::Interleaved || (isScattered && random.below(2));
        _stride = isShared ? channels + (isScattered ? random.below(3) : 0) : 1;
        const size_t floats = frames == 0 ? 0 : size_t{frames - 1} * _stride + (isShared ? channels : 1);
        for (uint32_t c = 0; c < channels; ++c) {
            if (c == 0 || !isShared)
                _memory.push_back(std::make_unique<GuardedMemory>(floats * sizeof(float), guard));
            pointers.push_back(_memory.back()->of<float>().data() + (isShared ? c : 0));
        }
        if (isScattered && random.below(2)) // channels in another order
            std::swap(pointers[random.below(channels)], pointers[random.below(channels)]);
        for (float* const pointer : pointers)
            entries.push_back({pointer, _stride * sizeof(float)});
    }
    float& at(uint32_t frame, uint32_t channel) const { return pointers[channel][size_t{frame} * _stride]; }

    std::vector<ausampler_iovec> entries;
    std::vector<float*> pointers;

private:
    std::vector<std::unique_ptr<GuardedMemory>> _memory;
    size_t _stride;
};

uint32_t call(ausampler* sampler, Direction direction, Layout layout, const Block& in, const Block& out,
              uint32_t frames, double rateIn, double rateOut)
{
    const CXRealtimeScope realtime;
    const bool reads = direction == Direction::Read;
    if (layout == Layout::Interleaved)
        return (reads ? ausampler_read_interleaved : ausampler_write_interleaved)(
            sampler, in.pointers[0], out.pointers[0], frames, rateIn, rateOut);
    if (layout == Layout::Noninterleaved)
        return (reads ? ausampler_read_noninterleaved : ausampler_write_noninterleaved)(
            sampler, in.pointers.data(), out.pointers.data(), frames, rateIn, rateOut);
    return (reads ? ausampler_read_iovec : ausampler_write_iovec)(
        sampler, in.entries.data(), out.entries.data(), frames, rateIn, rateOut);
}

/// Converts one stream with every instruction set and with the reference.
class Comparison {
public:
    Comparison(uint32_t channels, Direction direction, Random& random)
        : _channels(channels), _direction(direction), _random(random), _reference(channels)
    {
        for (size_t i = 0; i < availableInstructionSets().size(); ++i)
            _samplers.push_back(aSampler(channels));
    }

    void reset()
    {
        _reference = SamplerReference(_channels);
        for (const Sampler& sampler : _samplers)
            ausampler_reset(sampler.get());
    }

    /// Makes one call that reads or writes `frames` frames.
    void step(uint32_t frames, double rateIn, double rateOut, float special)
    {
        const bool reads = _direction == Direction::Read;
        const uint32_t in = reads ? _reference.framesIn(frames, rateIn, rateOut) : frames;
        const uint32_t out = reads ? frames : _reference.framesOut(frames, rateIn, rateOut);
        std::vector<float> input(size_t{in} * _channels + 1), expected(size_t{out} * _channels + 1);
        const float gain = _random.below(8) == 0 ? 1e-39F : 1; // some blocks are denormal
        for (float& sample : input)
            sample = _random.below(256) == 0 ? special : gain * _random.between(-1.0F, 1.0F);
        _reference.move(input.data(), in, expected.data(), out, rateIn, rateOut);

        const auto guard = _random.below(2) ? GuardedMemory::Guard::Behind : GuardedMemory::Guard::Before;
        const auto layout = static_cast<Layout>(_random.below(3));
        const Block given(layout, _channels, in, guard, _random), got(layout, _channels, out, guard, _random);
        for (uint32_t k = 0; k < in; ++k)
            for (uint32_t c = 0; c < _channels; ++c)
                given.at(k, c) = input[size_t{k} * _channels + c];
        for (size_t set = 0; set < _samplers.size(); ++set) {
            useInstructionSet(availableInstructionSets()[set]);
            ausampler* const sampler = _samplers[set].get();
            EXPECT_EQ(reads ? ausampler_read_frames_in(sampler, frames, rateIn, rateOut) : in, in);
            EXPECT_EQ(reads ? out : ausampler_write_frames_out(sampler, frames, rateIn, rateOut), out);
            EXPECT_EQ(call(sampler, _direction, layout, given, got, frames, rateIn, rateOut), frames);
            SCOPED_TRACE(availableInstructionSets()[set].name);
            for (uint32_t k = 0; k < out; ++k)
                for (uint32_t c = 0; c < _channels; ++c)
                    ASSERT_TRUE(bitsOf(got.at(k, c)) == bitsOf(expected[size_t{k} * _channels + c]))
                        << " frame " << k << " channel " << c << " of " << out << "x" << _channels;
            ASSERT_EQ(sampler->phase, _reference.phase);
        }
    }

private:
    const uint32_t _channels;
    const Direction _direction;
    Random& _random;
    SamplerReference _reference;
    std::vector<Sampler> _samplers;
};

double aRate(Random& random)
{
    constexpr double usual[] = {8000, 11025, 16000, 22050, 32000, 44100, 48000, 88200, 96000, 176400, 192000};
    return random.below(3) > 0 ? usual[random.below(std::size(usual))] : random.between(1000.0, 200000.0);
}

// Compares every instruction set with the reference, for all rates, block lengths, channel counts, layouts
// and alignments: the same bits in each of consecutive blocks, and no access outside the blocks.
TEST(Sampler, givesTheReferencesBitsOnEveryInstructionSet)
{
    const std::pair<double, double> extremes[] = {{192, 192000},       {192000, 192}, {48000, 48000},
                                                  {48000, 47999.9999}, {1, 2000},     {44100.5, 48000}};
    Random random(20240607);
    for (uint32_t round = 0; round < 250; ++round) {
        const bool isExtreme = round % 10 == 0;
        const uint32_t channels = 1 + random.below(random.below(4) == 0 ? 35 : 9);
        Comparison comparison(channels, random.below(2) ? Direction::Read : Direction::Write, random);
        auto [rateIn, rateOut] =
            isExtreme ? extremes[round / 10 % std::size(extremes)] : std::pair(aRate(random), aRate(random));
        const float special = random.below(16) == 0 ? std::numeric_limits<float>::infinity() : -0.0F;
        for (int block = 0; block < 60; ++block) {
            if (!isExtreme && random.below(64) == 0) // without a reset, as for a device that drifts
                rateOut *= 1.0001;
            if (random.below(64) == 0)
                comparison.reset();
            const uint32_t longest = random.below(4) == 0 ? 2000 : random.below(4) == 1 ? 6 : 520;
            const uint32_t frames = 1 + random.below(isExtreme ? std::min(longest, 20U) : longest);
            ASSERT_NO_FATAL_FAILURE(comparison.step(frames, rateIn, rateOut, special));
        }
    }
}

TEST(Sampler, convertsNothingAtInvalidRatesOrWithoutFrames)
{
    constexpr double none = std::numeric_limits<double>::quiet_NaN(),
                     endless = std::numeric_limits<double>::infinity();
    const struct {
        double rateIn, rateOut;
        uint32_t frames = 4;
    } rows[] = {{0, 48000},         {48000, 0},      {-44100, 48000}, {44100, -48000},
                {-1, -1},           {none, 48000},   {48000, none},   {endless, 48000},
                {endless, endless}, {1e300, 1e-300}, {1e-300, 1e300}, {44100, 48000, 0}};
    const Sampler sampler = aSampler(1);
    EXPECT_EQ(ausampler_read_frames_in(sampler.get(), 512, 44100, 48000), 470U) << "valid ones";
    const float in[4] = {1, 1, 1, 1};
    float out[4] = {7, 7, 7, 7};
    for (const auto& [rateIn, rateOut, frames] : rows) {
        EXPECT_EQ(ausampler_read_frames_in(sampler.get(), frames, rateIn, rateOut), 0U);
        EXPECT_EQ(ausampler_write_frames_out(sampler.get(), frames, rateIn, rateOut), 0U);
        EXPECT_EQ(ausampler_read_interleaved(sampler.get(), in, out, frames, rateIn, rateOut), 0U);
        EXPECT_EQ(ausampler_write_interleaved(sampler.get(), in, out, frames, rateIn, rateOut), 0U);
    }
    EXPECT_EQ(out[0], 7);
    EXPECT_EQ(sampler->phase, 1);
    EXPECT_EQ(sampler->channel_states[0].history[3], 0);
}

TEST(Sampler, refusesToWorkInPlace)
{
    const Sampler sampler = aSampler(1);
    float samples[8] = {};
    EXPECT_DEATH(ausampler_read_interleaved(sampler.get(), samples, samples, 8, 48000, 48000), "base");
}

TEST(Sampler, restoresTheCallersModeOfDenormals)
{
    const volatile float tiny = 1e-40F, half = 0.5F;
    const Sampler sampler = aSampler(1);
    const float in[4] = {};
    float out[4];
    ausampler_read_interleaved(sampler.get(), in, out, 4, 48000, 48000);
    EXPECT_GT(tiny * half, 0) << "denormals count again";
    const DenormalFlush callersOwn;
    ausampler_read_interleaved(sampler.get(), in, out, 4, 48000, 48000);
    EXPECT_EQ(tiny * half, 0) << "a caller that flushes still does";
}

} // namespace
