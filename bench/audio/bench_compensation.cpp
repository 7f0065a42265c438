// What does it cost to convert a stream between clocks that differ by 100 parts per million, with a ratio
// that may change at every block, compared with the peers that support this? And what is the loss of quality:
// the signal-to-noise ratio and the level of tones?

#include "CompensatingResampler.h"
#include "Contest.h"
#include "InstructionSet.h"
#include "SamplerateResampler.h"
#include "ToneFit.h"

#include <cstdio>
#include <memory>
#include <numbers>
#include <soxr.h>
#include <stdexcept>
#include <zita-resampler/vresampler.h>

extern "C" {
#include <libavutil/channel_layout.h>
#include <libavutil/opt.h>
#include <libswresample/swresample.h>
}

namespace {

constexpr uint32_t rate = 48000;
constexpr double partsPerMillion = 100.0;
constexpr double outputPerInput = 1.0 + partsPerMillion * 1e-6;
constexpr uint32_t roomFrames = 1 << 14;

/// Includes all that an aggregate does with the samples: copying into planar channels and back.
class Ours final : public Resampler {
public:
    explicit Ours(uint32_t channels) : _channels(channels), _samples(channels)
    {
        for (std::vector<float>& channel : _samples) {
            channel.resize(ringFrames + 64);
            _pointers.push_back(channel.data());
        }
    }
    uint32_t convert(const float* input, uint32_t frames, float* output) override
    {
        for (uint32_t frame = 0; frame < frames; ++frame, ++_written)
            for (uint32_t channel = 0; channel < _channels; ++channel) {
                const float sample = input[size_t{frame} * _channels + channel];
                _samples[channel][_written & mask] = sample;
                if ((_written & mask) < 64)
                    _samples[channel][ringFrames + (_written & mask)] = sample;
            }
        uint32_t count = 0;
        const auto available = static_cast<double>(_written - _resampler->framesAfter());
        if (_written > 2 * _resampler->framesAfter())
            count = static_cast<uint32_t>((available - static_cast<double>(_walk.frame) - _walk.fraction) /
                                          _walk.step);
        _resampler->read({_pointers.data(), _channels, mask}, _walk, count, output, _channels);
        _walk = _walk.after(count);
        return count;
    }

private:
    static constexpr uint64_t ringFrames = 8192, mask = ringFrames - 1;
    const CXRef<CompensatingResampler> _resampler = CompensatingResampler::initWithRatio(1.0);
    const uint32_t _channels;
    std::vector<std::vector<float>> _samples;
    std::vector<const float*> _pointers;
    uint64_t _written = 0;
    CompensatingResampler::Walk _walk{64, 0.0, 1.0 / outputPerInput, 0.0};
};

class Swresample final : public Resampler {
public:
    Swresample(uint32_t channels, int taps, bool isLinear)
    {
        AVChannelLayout layout;
        av_channel_layout_default(&layout, static_cast<int>(channels));
        if (swr_alloc_set_opts2(&_context, &layout, AV_SAMPLE_FMT_FLT, rate, &layout, AV_SAMPLE_FMT_FLT, rate,
                                0, nullptr) != 0)
            throw std::runtime_error("swresample");
        av_opt_set_int(_context, "flags", SWR_FLAG_RESAMPLE, 0);
        av_opt_set_int(_context, "filter_size", taps, 0);
        av_opt_set_int(_context, "linear_interp", isLinear ? 1 : 0, 0);
        if (swr_init(_context) < 0)
            throw std::runtime_error("swresample");
    }
    ~Swresample() override { swr_free(&_context); }
    uint32_t convert(const float* input, uint32_t frames, float* output) override
    {
        constexpr int distance = 1'000'000;
        swr_set_compensation(_context, static_cast<int>(partsPerMillion), distance);
        const auto* in = reinterpret_cast<const uint8_t*>(input);
        auto* out = reinterpret_cast<uint8_t*>(output);
        return static_cast<uint32_t>(swr_convert(_context, &out, roomFrames, &in, static_cast<int>(frames)));
    }

private:
    SwrContext* _context = nullptr;
};

class Soxr final : public Resampler {
public:
    explicit Soxr(uint32_t channels, unsigned long quality)
    {
        const soxr_quality_spec_t spec = soxr_quality_spec(quality, SOXR_VR);
        const soxr_io_spec_t io = soxr_io_spec(SOXR_FLOAT32_I, SOXR_FLOAT32_I);
        soxr_error_t error = nullptr;
        _soxr = soxr_create(2.0, 1.0, channels, &error, &io, &spec, nullptr); // the maximum ratio
        if (error)
            throw std::runtime_error(error);
        soxr_set_io_ratio(_soxr, 1.0 / outputPerInput, 0);
    }
    ~Soxr() override { soxr_delete(_soxr); }
    uint32_t convert(const float* input, uint32_t frames, float* output) override
    {
        size_t used = 0, made = 0;
        soxr_process(_soxr, input, frames, &used, output, roomFrames, &made);
        return static_cast<uint32_t>(made);
    }

private:
    soxr_t _soxr;
};

class Zita final : public Resampler {
public:
    Zita(uint32_t channels, uint32_t halfLength)
    {
        if (_resampler.setup(1.0, channels, halfLength) != 0)
            throw std::runtime_error("zita-resampler");
        _resampler.set_rratio(outputPerInput);
    }
    uint32_t convert(const float* input, uint32_t frames, float* output) override
    {
        _resampler.inp_count = frames;
        _resampler.inp_data = const_cast<float*>(input);
        _resampler.out_count = roomFrames;
        _resampler.out_data = output;
        _resampler.process();
        return roomFrames - _resampler.out_count;
    }

private:
    VResampler _resampler;
};

struct Kind {
    const char* name;
    std::function<std::unique_ptr<Resampler>(uint32_t channels)> make;
};

template <class Type, class... Setting> Kind kind(const char* name, Setting... setting)
{
    return {name, [=](uint32_t channels) { return std::make_unique<Type>(channels, setting...); }};
}

Kind samplerate(const char* name, int type)
{
    return {name, [type](uint32_t channels) {
                return std::make_unique<SamplerateResampler>(outputPerInput, channels, type);
            }};
}

const Kind kinds[] = {
    kind<Ours>("dxr"),
    samplerate("libsamplerate, linear", SRC_LINEAR),
    samplerate("libsamplerate, sinc fastest", SRC_SINC_FASTEST),
    samplerate("libsamplerate, sinc medium", SRC_SINC_MEDIUM_QUALITY),
    samplerate("libsamplerate, sinc best", SRC_SINC_BEST_QUALITY),
    kind<Swresample>("libswresample, default", 32, false),
    kind<Swresample>("libswresample, 64, linear", 64, true),
    kind<Soxr>("soxr, variable rate", static_cast<unsigned long>(SOXR_HQ)),
    kind<Zita>("zita-resampler, 32", 32U),
    kind<Zita>("zita-resampler, 48", 48U),
};

void printSpeed()
{
    FigureTable table("48 kHz plus 100 ppm: ns per output frame and channel");
    for (const uint32_t channels : {1U, 2U, 8U, 32U})
        for (const uint32_t frames : {64U, 512U}) {
            std::vector<float> input(size_t{frames} * channels), output(size_t{roomFrames} * channels);
            for (size_t i = 0; i < input.size(); ++i)
                input[i] = static_cast<float>(std::sin(0.02 * static_cast<double>(i)));
            Contest contest;
            std::vector<std::unique_ptr<Resampler>> resamplers;
            for (const Kind& kind : kinds) {
                resamplers.push_back(kind.make(channels));
                contest.add(kind.name, [&, resampler = resamplers.back().get()] {
                    return uint64_t{resampler->convert(input.data(), frames, output.data())} * channels;
                });
            }
            table.addColumn(std::to_string(channels) + "ch x " + std::to_string(frames), contest.names(),
                            contest.run());
        }
    table.print("libsamplerate, sinc fastest");
}

void printSets()
{
    FigureTable table("Ours with each instruction set: ns per output frame and channel");
    const InstructionSet& best = instructionSet();
    constexpr uint32_t frames = 512;
    for (const uint32_t channels : {1U, 2U, 8U, 32U}) {
        std::vector<float> input(size_t{frames} * channels), output(size_t{roomFrames} * channels);
        Contest contest;
        Ours ours(channels);
        for (const InstructionSet& set : availableInstructionSets())
            contest.add(set.name, [&] {
                useInstructionSet(set);
                return uint64_t{ours.convert(input.data(), frames, output.data())} * channels;
            });
        table.addColumn(std::to_string(channels) + "ch x 512", contest.names(), contest.run());
    }
    useInstructionSet(best);
    table.print(best.name);
}

std::vector<float> converted(Resampler& resampler, double hertz)
{
    constexpr uint32_t block = 512;
    std::vector<float> input(block), output(roomFrames), all;
    for (uint64_t fed = 0; fed < 120 * block;) {
        for (float& sample : input)
            sample = static_cast<float>(
                0.5 * std::sin(2 * std::numbers::pi * hertz / rate * static_cast<double>(fed++)));
        const uint32_t made = resampler.convert(input.data(), block, output.data());
        all.insert(all.end(), output.begin(), output.begin() + made);
    }
    all.erase(all.begin(), all.begin() + static_cast<ptrdiff_t>(all.size() / 3)); // the start
    return all;
}

void printQuality()
{
    std::vector<std::string> names;
    for (const Kind& kind : kinds)
        names.push_back(kind.name);
    FigureTable noise("Signal-to-noise ratio of a tone, dB");
    FigureTable level("Level of a tone, dB");
    for (const double hertz : {100.0, 1000.0, 5000.0, 10000.0, 15000.0, 18000.0, 20000.0}) {
        std::vector<double> ratios, levels;
        for (const Kind& kind : kinds) {
            const std::vector<float> output = converted(*kind.make(1), hertz);
            double power = 0.0;
            for (const float sample : output)
                power += static_cast<double>(sample) * static_cast<double>(sample);
            ratios.push_back(
                signalToNoiseNearby(output, 2 * std::numbers::pi * hertz / rate / outputPerInput));
            levels.push_back(10 * std::log10(power / static_cast<double>(output.size()) / 0.125));
        }
        const std::string head = std::to_string(static_cast<int>(hertz)) + " Hz";
        noise.addColumn(head, names, ratios);
        level.addColumn(head, names, levels);
    }
    noise.print("", 1);
    level.print("", 2);
}

} // namespace

int main()
{
    printSpeed();
    printSets();
    printQuality();
}
