#include "CXErrorAdditions.h"
#include "CXRealtime.h"
#include "DXRAudioConverter.h"
#include "Random.h"

#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <functional>
#include <numbers>

namespace {

using Body = std::function<void(uint64_t sampleTime, const DXRChannelEntry* samples)>;

class TestNode final : public DXRConverterNode {
public:
    static CXRef<TestNode> init(const std::vector<uint32_t>& usage, const Body& body)
    {
        return CXRef<TestNode>::adopt(new TestNode(usage, body));
    }
    std::vector<uint32_t> usageMap() const override { return _usage; }
    void performIOWithSampleTime(uint64_t sampleTime, const DXRChannelEntry* samples, uint64_t time) override
    {
        hostTime = time;
        _body(sampleTime, samples);
    }
    uint64_t hostTime = 0; ///< of the last cycle

private:
    TestNode(const std::vector<uint32_t>& usage, const Body& body) : _usage(usage), _body(body) {}
    const std::vector<uint32_t> _usage;
    const Body _body;
};

struct Format {
    double rate;
    uint32_t frames;
};

/// A device with one stream of `channels` in each direction, and nodes that play what they record.
class Loop {
public:
    Loop(Format device, Format client, uint32_t channels, std::vector<uint32_t> usage, bool hasInput = true,
         bool hasOutput = true, DXRConversionQuality quality = DXRConversionQuality::Standard)
        : heard(size_t{client.frames} * channels), _device(device), _client(client), _channels(channels),
          _usage(usage), _in(size_t{channels} * device.frames), _out(size_t{channels} * device.frames)
    {
        DXRAudioConverter::Nodes nodes[2];
        if (hasInput)
            nodes[0].push_back(TestNode::init(usage, [this](uint64_t time, const DXRChannelEntry* samples) {
                EXPECT_EQ(time, _ranUntil) << "no gap, no repetition";
                _ranUntil += _client.frames;
                _forEachSample(samples, [](float& own, float& sample) { own = sample; });
            }));
        if (hasOutput)
            nodes[1].push_back(
                TestNode::init(usage, [this, hasInput](uint64_t time, const DXRChannelEntry* samples) {
                    EXPECT_EQ(time, _playedUntil);
                    _playedUntil += _client.frames;
                    _ranUntil = hasInput ? _ranUntil : _playedUntil;
                    EXPECT_EQ(_playedUntil, _ranUntil) << "in lockstep with the input";
                    _forEachSample(samples, [](float& own, float& sample) { sample = own; });
                }));
        const uint32_t counts[2] = {channels, channels};
        converter = DXRAudioConverter::initWithNodes(nodes, counts, device.rate, client.rate, device.frames,
                                                     client.frames, quality);
        for (uint32_t c = 0; c < channels; ++c) {
            entries[0].push_back({&_in[c], channels});
            entries[1].push_back({&_out[c], channels});
        }
    }

    /// Runs one device cycle: `source` returns a frame's input sample, `drain` receives its output sample.
    template <class Source, class Drain> void cycle(const Source& source, const Drain& drain)
    {
        for (uint32_t k = 0; k < _device.frames; ++k)
            for (const uint32_t channel : _usage)
                _in[size_t{k} * _channels + channel - 1] = source(_frame + k);
        const DXRChannelEntry* const samples[2] = {entries[0].data(), entries[1].data()};
        {
            const CXRealtimeScope realtime;
            converter->performIOWithSampleTime(&sampleTime, samples);
        }
        EXPECT_EQ(sampleTime, _ranUntil);
        for (uint32_t k = 0; k < _device.frames; ++k)
            for (const uint32_t channel : _usage)
                drain(_frame + k, channel, _out[size_t{k} * _channels + channel - 1]);
        _frame += _device.frames;
    }

    CXRef<DXRAudioConverter> converter;
    uint64_t sampleTime = 0;
    std::vector<float> heard;                ///< the nodes' last input, and next output
    std::vector<DXRChannelEntry> entries[2]; ///< the device's streams

private:
    template <class Visit> void _forEachSample(const DXRChannelEntry* samples, const Visit& visit)
    {
        for (uint32_t c = 0; c < _channels; ++c) {
            const bool isUsed = std::ranges::find(_usage, c + 1) != _usage.end();
            EXPECT_EQ(samples[c].samples != nullptr, isUsed);
            EXPECT_EQ(samples[c].stride, isUsed ? _usage.size() : 0);
            for (uint32_t k = 0; isUsed && k < _client.frames; ++k)
                visit(heard[size_t{k} * _channels + c], samples[c].samples[size_t{k} * samples[c].stride]);
        }
    }

    const Format _device, _client;
    const uint32_t _channels;
    const std::vector<uint32_t> _usage;
    std::vector<float> _in, _out;
    uint64_t _frame = 0, _ranUntil = 0, _playedUntil = 0;
};

// In every plausible format, the nodes' time follows the ratio of the rates and the output level equals the
// input's, even if a device cycle is shorter than one frame of the nodes, or if the nodes use no channel.
TEST(DXRAudioConverter, keepsTimeAndLevelInEveryFormat)
{
    using enum DXRConversionQuality;
    std::vector<Format> formats;
    for (const double rate : {8000, 11025, 44100, 48000, 96000, 192000})
        for (const uint32_t frames : {1, 16, 64, 256, 480, 1024})
            formats.push_back({rate, frames});
    constexpr std::pair<bool, bool> directions[] = {{true, true}, {true, false}, {false, true}};
    uint32_t round = 0;
    for (const Format& device : formats)
        for (const Format& client : formats)
            for (const auto& [hasInput, hasOutput] : directions) {
                const bool isHigh = ++round % 17 == 0; // only some: creating a filter is slow
                const std::vector<uint32_t> usage(round % 7 == 0 ? 0 : 1, 1);
                Loop loop(device, client, 1, usage, hasInput, hasOutput, isHigh ? High : Standard);
                loop.heard.assign(client.frames, 0.5F); // the output level without an input
                SCOPED_TRACE(loop.converter->description());
                float peak = 0, last = 0;
                const uint32_t cycles = std::max(20U, 3000 / device.frames);
                for (uint32_t i = 0; i < cycles; ++i)
                    loop.cycle([](uint64_t) { return 0.5F; },
                               [&](uint64_t, uint32_t, float sample) {
                                   peak = std::max(peak, std::abs(sample));
                                   last = sample;
                               });
                const double r = client.rate / device.rate;
                const double due = static_cast<double>(cycles) * device.frames * r;
                const double tolerance = client.frames + (isHigh ? 40 * std::max(r, 1.0) : 2 * r + 4);
                ASSERT_NEAR(static_cast<double>(loop.sampleTime), due, tolerance);
                if (hasOutput && !isHigh && !usage.empty()) {
                    ASSERT_LT(peak, 0.8F);
                    ASSERT_NEAR(last, 0.5F, due > 4 * client.frames + 100 ? 0.01F : 0.8F);
                }
                ASSERT_FALSE(::testing::Test::HasFailure());
            }
}

// The nodes play their input: a tone of a device at 48 kHz passes through clients at other rates without a
// lost or repeated frame. The error is the residual of the best-fitting tone.
TEST(DXRAudioConverter, keepsATonePure)
{
    using enum DXRConversionQuality;
    const struct {
        Format client;
        uint32_t deviceFrames;
        DXRConversionQuality quality;
        double frequency; // Hz
        double maxError;  // dB, for a tone at full scale
    } rows[] = {
        {{44100, 441}, 512, High, 10'000, -110},    {{96000, 100}, 512, High, 10'000, -110},
        {{44100, 512}, 16, High, 10'000, -110},     {{32000, 7}, 480, High, 10'000, -110},
        {{44100, 441}, 512, Standard, 10'000, -20}, {{44100, 441}, 512, Standard, 100, -75},
        {{96000, 100}, 33, Standard, 100, -75},     {{32000, 7}, 2048, Standard, 100, -75},
    };
    for (const auto& row : rows) {
        const auto turn = [&row](uint64_t k) { // the tone's, as a complex number
            return std::polar(1.0, 2 * std::numbers::pi * row.frequency / 48'000 * static_cast<double>(k));
        };
        Loop loop({48'000, row.deviceFrames}, row.client, 1, {1}, true, true, row.quality);
        const uint64_t wanted = 48'000, settled = 9'600; // frames; whole periods of the tone
        std::complex<double> sum;
        double power = 0;
        for (uint64_t frame = 0; frame < wanted; frame += row.deviceFrames)
            loop.cycle([&](uint64_t k) { return static_cast<float>(turn(k).imag()); },
                       [&](uint64_t k, uint32_t, float sample) {
                           if (k < settled || k >= wanted)
                               return;
                           const auto x = static_cast<double>(sample);
                           sum += x * turn(k);
                           power += x * x;
                       });
        const double frames = static_cast<double>(wanted - settled), tone = 2 * std::norm(sum) / frames;
        const double error = 10 * std::log10(std::max(power - tone, 1e-30) / (frames / 2));
        const std::string format = loop.converter->description();
        EXPECT_LT(error, row.maxError) << format;
        EXPECT_NEAR(10 * std::log10(tone / (frames / 2)), 0, row.maxError < -20 ? 0.01 : 3) << format;
    }
}

// At equal rates the output is the input, delayed by a constant number of frames.
TEST(DXRAudioConverter, keepsEveryFrameAtEqualRates)
{
    Random random(42);
    for (int round = 0; round < 40; ++round) {
        const Format device{44100.5, 32 + random.below(round % 4 == 0 ? 64 : 2048)};
        const Format client{44100.5, 1 + random.below(round % 4 == 1 ? 64 : 2048)};
        Loop loop(device, client, 2, round % 8 == 0 ? std::vector<uint32_t>{1, 2} : std::vector<uint32_t>{2});
        const auto given = [](uint64_t k) { return static_cast<float>(k + 1); };
        std::optional<uint64_t> delay;
        uint64_t wrong = 0;
        for (uint32_t frames = 0; frames < 400'000; frames += device.frames)
            loop.cycle(given, [&](uint64_t k, uint32_t, float sample) {
                if (!delay && sample != 0)
                    delay = k;
                wrong += delay ? sample != given(k - *delay) : sample != 0;
            });
        EXPECT_EQ(wrong, 0U);
        EXPECT_TRUE(delay);
        ASSERT_FALSE(::testing::Test::HasFailure()) << loop.converter->description();
    }
}

// At equal rates, whole node cycles run as soon as their frames are complete. Several nodes of a direction
// share its channels; channels that the device lacks are ignored.
TEST(DXRAudioConverter, runsWholeNodeCyclesAndKeepsTheRest)
{
    constexpr uint64_t whole[] = {1, 3, 5, 6, 8}, begun[] = {2, 4, 6, 7, 9}; // 256-frame cycles in n * 441
    for (const bool isInput : {true, false}) {
        uint64_t heard = 0;
        float sum = 0; // of the first frame's channel 2
        const CXRef<TestNode> first = TestNode::init({2}, [&](uint64_t time, const DXRChannelEntry* samples) {
            heard = time + 256;
            sum = samples[1].samples[0] = isInput ? samples[1].samples[0] : 1.0F;
        });
        const CXRef<TestNode> second =
            TestNode::init({0, 1, 2, 3, UINT32_MAX},
                           [&](uint64_t, const DXRChannelEntry* samples) { sum += samples[1].samples[0]; });
        DXRAudioConverter::Nodes nodes[2];
        nodes[isInput ? 0 : 1] = {first, second};
        const uint32_t counts[2] = {2, 2};
        const auto converter = DXRAudioConverter::initWithNodes(nodes, counts, 48000, 48000, 441, 256);
        std::vector<float> device(size_t{2} * 441, 1.0F);
        const DXRChannelEntry entries[2] = {{device.data(), 2}, {device.data() + 1, 2}};
        const DXRChannelEntry* const samples[2] = {entries, entries};
        uint64_t time = 0;
        for (size_t n = 0; n < 5; ++n) {
            const DXRCycleTimes times{1e9, 2e9, n == 1 ? 0.0 : 1e9 / 48000};
            converter->performIOWithSampleTime(&time, samples, times);
            EXPECT_EQ(time, 256 * (isInput ? whole[n] : begun[n]));
            EXPECT_EQ(heard, time);
            if (n < 2) { // times of the last input and next output block; the second cycle has no times
                const uint64_t hostTime = isInput ? 1'000'000'000 : 2'010'666'666;
                EXPECT_EQ(first->hostTime, n == 0 ? hostTime : 0);
            }
        }
        EXPECT_EQ(sum, 2.0F) << "both have the same samples";
    }
}

// The first read for the output needs more frames than the device has delivered.
TEST(DXRAudioConverter, repeatsTheOldestFrameForMissingInput)
{
    Loop loop({48000, 1}, {24000, 4}, 1, {1});
    int repeated = 0;
    for (uint64_t ranUntil = 0; ranUntil < 2000; ranUntil = loop.sampleTime) {
        while (loop.sampleTime == ranUntil)
            loop.cycle([](uint64_t k) { return static_cast<float>(k + 1); }, [](auto...) {});
        EXPECT_EQ(loop.sampleTime, ranUntil + 4) << "`heard` has every frame";
        const auto begin = loop.heard.begin(), end = loop.heard.end();
        const auto firstRise = std::ranges::adjacent_find(loop.heard, std::ranges::less());
        repeated += firstRise != begin;
        EXPECT_TRUE(std::all_of(begin, firstRise, [&](float each) { return each == loop.heard[0]; }));
        EXPECT_TRUE(std::ranges::is_sorted(firstRise, end, std::ranges::less_equal()));
    }
    EXPECT_GT(repeated, 0);
}

TEST(DXRAudioConverter, treatsNullEntriesAsSilence)
{
    for (const double clientRate : {48000.0, 44100.0}) {
        Loop loop({48000, 256}, {clientRate, 192}, 2, {1, 2});
        loop.entries[0][1] = {nullptr, 0};
        loop.entries[1][0] = {nullptr, 0};
        float loudest[2] = {};
        for (int i = 0; i < 20; ++i)
            loop.cycle([](uint64_t) { return 0.5F; },
                       [&](uint64_t, uint32_t channel, float sample) {
                           loudest[channel - 1] = std::max(loudest[channel - 1], std::abs(sample));
                       });
        EXPECT_EQ(loudest[0], 0) << "the device has no such output, its memory stays as it was";
        EXPECT_EQ(loudest[1], 0) << "an input that the device lacks is silent";
    }
}

TEST(DXRAudioConverter, refusesRatesAndFramesThatCannotRun)
{
    EXPECT_THROW(Loop({0, 512}, {44100, 512}, 1, {1}), CXException);
    Loop endless({44100, 512}, {44100, 0}, 1, {1});
    endless.cycle([](uint64_t) { return 1.0F; }, [](auto...) {});
    EXPECT_EQ(endless.sampleTime, 0U);
}

TEST(DXRAudioConverter, describesItsConversion)
{
    const std::string text = Loop({44100, 512}, {48000, 256}, 3, {3, 1}).converter->description();
    EXPECT_TRUE(text.ends_with(
        ", input [1, 3], output [1, 3], frameCount: 512 -> 256, sampleRate: 44100hz -> 48000hz>"));
}

} // namespace
