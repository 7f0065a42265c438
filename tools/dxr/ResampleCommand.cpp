#include "ResampleCommand.h"

#include "DisplayText.h"
#include "Interrupts.h"
#include "LiveLines.h"
#include "SoundFileReader.h"
#include "SoundFileWriter.h"
#include "TextFormat.h"
#include "ToolFailure.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <dxr/ausampler.h>
#include <filesystem>
#include <iostream>
#include <memory>

namespace {

struct Options {
    std::string input, output;
    uint32_t rate = 0; // Hz
};

constexpr uint32_t blockFrames = 4096;

/// A file's way through the sampler. What the sampler is late by is cut off the start and made up at the end,
/// so that the output begins and ends with the input.
class FileResampling {
public:
    FileResampling(SoundFileReader& reader, SoundFileWriter& writer, uint32_t rate)
        : _reader(reader), _writer(writer), _rateIn(reader.sampleRate()), _rateOut(rate),
          _sampler(ausampler_create(reader.channelCount()), ausampler_destroy),
          _input(reader.channelCount(), blockFrames),
          _output(reader.channelCount(), static_cast<uint64_t>(std::ceil(blockFrames * rate / _rateIn)) + 16),
          _late(static_cast<uint64_t>(std::llround(delayFrames * rate / _rateIn))),
          _total(
              static_cast<uint64_t>(std::llround(static_cast<double>(reader.frameCount()) * rate / _rateIn)))
    {}

    /// Converts the next block. False when the output is whole.
    bool step()
    {
        _mayHaveMore = _mayHaveMore && _reader.fill(_input);
        uint64_t frames = _input.readableFrames();
        std::vector<float> samples(size_t{blockFrames} *
                                   _reader.channelCount()); // silent past the input's end
        for (uint64_t frame = 0; frame < frames; ++frame)
            std::copy_n(_input.frameToRead(frame), _reader.channelCount(),
                        &samples[frame * _reader.channelCount()]);
        _input.commitRead(frames);
        if (frames == 0)
            frames = blockFrames;
        _convert(samples, static_cast<uint32_t>(frames));
        return _writer.framesWritten() < _total;
    }
    double progress() const
    {
        return static_cast<double>(_writer.framesWritten()) /
               static_cast<double>(std::max<uint64_t>(_total, 1));
    }

private:
    static constexpr double delayFrames = 2; // of input, that the interpolation is late by

    void _convert(const std::vector<float>& samples, uint32_t frames)
    {
        const uint32_t channels = _reader.channelCount();
        const uint32_t made = ausampler_write_frames_out(_sampler.get(), frames, _rateIn, _rateOut);
        std::vector<float> converted(size_t{made} * channels);
        ausampler_write_interleaved(_sampler.get(), samples.data(), converted.data(), frames, _rateIn,
                                    _rateOut);
        for (uint32_t done = 0; done < made;) {
            const uint64_t skipped = std::min<uint64_t>(_late, made - done);
            _late -= skipped;
            done += static_cast<uint32_t>(skipped);
            const uint64_t count = std::min<uint64_t>(made - done, _output.writableFrames());
            for (uint64_t frame = 0; frame < count; ++frame)
                std::copy_n(&converted[(done + frame) * channels], channels, _output.frameToWrite(frame));
            _output.commitWrite(count);
            done += static_cast<uint32_t>(count);
            _writer.drain(_output, _total - _writer.framesWritten());
            _output.commitRead(_output.readableFrames()); // past the end
        }
    }

    SoundFileReader& _reader;
    SoundFileWriter& _writer;
    const double _rateIn, _rateOut; // Hz
    const std::unique_ptr<ausampler, decltype(&ausampler_destroy)> _sampler;
    FrameRing _input, _output;
    uint64_t _late; // output frames still to be cut off
    const uint64_t _total;
    bool _mayHaveMore = true;
};

/// Shows how far a conversion is, once it has taken long enough for someone to wonder.
class Progress {
public:
    Progress() : _live(_terminal) {}
    void show(double progress)
    {
        using namespace std::chrono_literals;
        const auto now = std::chrono::steady_clock::now();
        if (now - _begin < 500ms || now - _drawn < 100ms)
            return;
        _drawn = now;
        const size_t width = std::min<size_t>(_terminal.columns() - 8, 60);
        const auto filled = static_cast<size_t>(progress * static_cast<double>(width));
        _live.draw(
            {std::string(filled, '=') + std::string(width - filled, ' ') + " " + formatPercent(progress)});
    }

private:
    const Terminal _terminal;
    LiveLines _live;
    const std::chrono::steady_clock::time_point _begin = std::chrono::steady_clock::now();
    std::chrono::steady_clock::time_point _drawn;
};

void refuseSameFile(const Options& options)
{
    std::error_code ignored;
    if (std::filesystem::equivalent(options.input, options.output, ignored))
        throw ToolFailure(singleLine(options.output) + ": is the file to read; name another one to write");
}

void run(const Options& options)
{
    refuseSameFile(options);
    SoundFileReader reader(options.input);
    if (reader.isStream())
        throw ToolFailure("the length of the input must be known: resample a file");
    const double seconds = static_cast<double>(reader.frameCount()) / reader.sampleRate();
    const Interrupts interrupts;
    SoundFileWriter writer(options.output, SoundFormat::toWrite(options.output, "", 0), reader.channelCount(),
                           options.rate, seconds);
    FileResampling resampling(reader, writer, options.rate);
    {
        Progress progress;
        while (resampling.step()) {
            if (interrupts.wasAsked())
                throw ToolFailure("stopped; " + singleLine(options.output) + " holds the start");
            progress.show(resampling.progress());
        }
    }
    writer.finish();
    std::cout << formatCount(reader.frameCount(), "frame", "frames") << " at "
              << formatRate(reader.sampleRate()) << " -> "
              << formatCount(writer.framesWritten(), "frame", "frames") << " at " << formatRate(options.rate)
              << "\n";
}

} // namespace

void registerResampleCommand(CLI::App& app)
{
    CLI::App* command = app.add_subcommand("resample", "Convert a sound file to another sample rate");
    const auto options = std::make_shared<Options>();
    command->add_option("input", options->input, "The sound file to read")->required();
    command->add_option("output", options->output, "The WAV file to write; one that is there is replaced")
        ->required();
    command->add_option("--rate", options->rate, "The sample rate to convert to, in Hz")
        ->required()
        ->check(CLI::Range(100, 1'536'000));
    command->callback([options] { run(*options); });
}
