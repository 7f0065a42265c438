#include "Commands.h"

#include "Interrupts.h"
#include "SoundFileReader.h"
#include "SoundFileWriter.h"

#include <algorithm>
#include <cmath>
#include <dxr/DXRAudioConverter.h>
#include <filesystem>
#include <numeric>
#include <optional>

using namespace std::chrono_literals;

namespace {

struct Options {
    std::string input, output;
    uint32_t rate = 0; // Hz
    bool isFast = false;
};

constexpr uint32_t minRate = 100, maxRate = 1'536'000; // Hz

/// The input frames of a block, a power of two as in ring buffers: at most 1024, and fewer if their output
/// would take more than some megabytes.
uint32_t inputFramesFor(double ratio, uint32_t channelCount)
{
    constexpr double maxSamples = 1U << 20;
    return std::bit_floor(
        static_cast<uint32_t>(std::clamp(maxSamples / (ratio * channelCount), 1.0, 1024.0)));
}

/// The converter's only node: stores its output in a ring buffer.
class ConvertedFrames final : public DXRConverterNode {
public:
    static constexpr uint32_t blockFrames = 256;
    static CXRef<ConvertedFrames> init(uint32_t channelCount, uint64_t minFrames)
    {
        return CXRef<ConvertedFrames>::adopt(new ConvertedFrames(channelCount, minFrames));
    }
    std::vector<uint32_t> usageMap() const override
    {
        std::vector<uint32_t> channels(ring.channelCount());
        std::iota(channels.begin(), channels.end(), 1U);
        return channels;
    }
    void performIOWithSampleTime(uint64_t sampleTime, const DXRChannelEntry* samples,
                                 uint64_t hostTime) override
    {
        if (sampleTime == 0)
            firstTicks = hostTime;
        for (uint64_t frame = 0; frame < blockFrames; ++frame)
            for (uint32_t channel = 0; channel < ring.channelCount(); ++channel)
                ring.frameToWrite(frame)[channel] = samples[channel].samples[frame * samples[channel].stride];
        ring.commitWrite(blockFrames);
    }

    FrameRing ring;
    uint64_t firstTicks = 0; ///< the input time of the first output frame, as the converter reports it

private:
    ConvertedFrames(uint32_t channelCount, uint64_t minFrames) : ring(channelCount, minFrames) {}
    ~ConvertedFrames() override = default;
};

/// Converts a file. The converter's delay is removed, so that output and input begin and end together.
class FileResampling {
public:
    FileResampling(SoundFileReader& reader, SoundFileWriter& writer, const Options& options)
        : _reader(reader), _writer(writer), _ratio(options.rate / reader.sampleRate()),
          _total(static_cast<uint64_t>(std::llround(static_cast<double>(reader.frameCount()) * _ratio))),
          _blockFrames(inputFramesFor(_ratio, reader.channelCount())),
          _input(reader.channelCount(), _blockFrames), _samples(size_t{_blockFrames} * reader.channelCount()),
          _output(ConvertedFrames::init(reader.channelCount(), static_cast<uint64_t>(_blockFrames * _ratio) +
                                                                   2UL * ConvertedFrames::blockFrames))
    {
        const DXRAudioConverter::Nodes nodes[2] = {{_output}, {}};
        const uint32_t channels[2] = {reader.channelCount(), 0};
        _converter = DXRAudioConverter::initWithNodes(
            nodes, channels, reader.sampleRate(), options.rate, _blockFrames, ConvertedFrames::blockFrames,
            options.isFast ? DXRConversionQuality::Standard : DXRConversionQuality::High);
        for (uint32_t channel = 0; channel < reader.channelCount(); ++channel)
            _entries.push_back({&_samples[channel], reader.channelCount()});
    }

    /// Converts the next block. Returns false once the output is complete.
    bool step()
    {
        const uint32_t channels = _reader.channelCount();
        _mayHaveMore = _mayHaveMore && _reader.fill(_input);
        const uint64_t frames = _input.readableFrames();
        std::ranges::fill(_samples, 0.0F); // silence after the input's end
        for (uint64_t frame = 0; frame < frames; ++frame)
            std::copy_n(_input.frameToRead(frame), channels, &_samples[frame * channels]);
        _input.commitRead(frames);

        constexpr double beginTicks = 1e12; // start of a clock that advances with the input frames
        const double period = 1e9 / _reader.sampleRate();
        const DXRChannelEntry* const entries[2] = {_entries.data(), nullptr};
        _converter->performIOWithSampleTime(
            &_sampleTime, entries, {beginTicks + static_cast<double>(_framesFed) * period, 0, period});
        _framesFed += _blockFrames;
        if (!_delay && _output->firstTicks != 0)
            _delay = static_cast<uint64_t>(std::max(
                0.0, std::round((beginTicks - static_cast<double>(_output->firstTicks)) / period * _ratio)));
        const uint64_t cut = std::min(_delay.value_or(0), _output->ring.readableFrames());
        _output->ring.commitRead(cut);
        if (_delay)
            *_delay -= cut;
        _writer.drain(_output->ring, _total - _writer.framesWritten());
        return _writer.framesWritten() < _total;
    }
    double progress() const // once step() has returned true
    {
        return static_cast<double>(_writer.framesWritten()) / static_cast<double>(_total);
    }

private:
    SoundFileReader& _reader;
    SoundFileWriter& _writer;
    const double _ratio; // output rate over input rate
    const uint64_t _total;
    const uint32_t _blockFrames; // of input
    FrameRing _input;
    std::vector<float> _samples; // an interleaved block
    std::vector<DXRChannelEntry> _entries;
    const CXRef<ConvertedFrames> _output;
    CXRef<DXRAudioConverter> _converter;
    uint64_t _sampleTime = 0, _framesFed = 0;
    std::optional<uint64_t> _delay; // output frames still to be removed; null: not known yet
    bool _mayHaveMore = true;
};

void run(Options& options)
{
    std::error_code ignored;
    if (std::filesystem::equivalent(options.input, options.output, ignored))
        throw ToolFailure(singleLine(options.output) + ": input and output are the same file");
    SoundFileReader reader(options.input);
    if (reader.isStream())
        throw ToolFailure("cannot resample a pipe: its length is unknown");
    const double rate = reader.sampleRate(), ratio = options.rate / rate;
    if (rate < minRate || rate > maxRate)
        throw ToolFailure(singleLine(options.input) +
                          formatText(": cannot resample %.0f Hz: only %u to %u Hz", rate, minRate, maxRate));
    if (!options.isFast && std::max(ratio, 1.0 / ratio) > 32.0) // for which there is no high quality
        throw ToolFailure("cannot resample by a ratio above 32: convert in two steps, or with --fast");
    const double seconds = static_cast<double>(reader.frameCount()) / rate;
    const Interrupts interrupts;
    SoundFileWriter writer(options.output, SoundFormat::toWrite(options.output, "", 0), reader.channelCount(),
                           options.rate, seconds);
    FileResampling resampling(reader, writer, options);
    Terminal terminal;
    auto drawAt = std::chrono::steady_clock::now() + 500ms;
    while (resampling.step()) {
        if (interrupts.wasAsked())
            throw ToolFailure("stopped; " + singleLine(options.output) + " is incomplete");
        const auto now = std::chrono::steady_clock::now();
        if (now < drawAt)
            continue;
        drawAt = now + 100ms;
        const double progress = resampling.progress();
        const auto [done, rest] = shareBar(progress, std::min<size_t>(terminal.columns() - 8, 60), "━", "─");
        terminal.draw({done + rest + " " + formatPercent(progress)});
    }
    terminal.clear();
    writer.finish();
    std::cout << formatCount(reader.frameCount(), "frame") << " at " << formatRate(reader.sampleRate())
              << " -> " << formatCount(writer.framesWritten(), "frame") << " at " << formatRate(options.rate)
              << "\n";
}

} // namespace

void registerResampleCommand(CLI::App& app)
{
    const auto [command, options] =
        addCommand(app, "resample", "Convert a sound file to another sample rate", run);
    addRequired(command, "input", options.input, "The sound file to read");
    addRequired(command, "output", options.output,
                "The file to write, in the format of its name; an existing one is replaced");
    addRequired(command, "--rate", options.rate, "The sample rate to convert to, in Hz")
        ->check(numberFrom(minRate, maxRate));
    command.add_flag("--fast", options.isFast, "Convert with less cost, and more noise; by any ratio");
}
