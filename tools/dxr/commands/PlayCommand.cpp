#include "Commands.h"

#include "DeviceProperties.h"
#include "DisplayText.h"
#include "FilePlayer.h"
#include "RunnerOptions.h"
#include "SessionScreen.h"
#include "TextFormat.h"
#include "ToolFailure.h"

#include <algorithm>
#include <cmath>
#include <filesystem>
#include <iostream>

namespace {

constexpr const char* about =
    "The same on all of them, at the rate of the file: for devices that run at another it is\n"
    "converted. One that goes is taken up again when it comes back; the file goes on meanwhile.";

struct Options {
    explicit Options(CLI::App& command) : audio(command, about) {}
    RunnerOptions audio;
    std::string file, format;
    std::vector<uint32_t> channels;
    bool isDownmixed = false, isRepeated = false;
};

ChannelMap mapFor(const Options& options, uint32_t fileChannels, const DeviceSelection& output)
{
    const size_t count = output.channels.size();
    if (options.isDownmixed)
        return downmixChannelMap(fileChannels, output);
    if (options.channels.empty()) {
        if (count < fileChannels)
            std::cout << output.shortName() << ": " << fileChannels - count << " of " << fileChannels
                      << " channels are not played; --downmix mixes them, --channels chooses" << std::endl;
        return straightChannelMap(fileChannels, output);
    }
    if (options.channels.size() > count)
        throw ToolFailure(output.shortName() +
                          formatText(" plays %zu channels, not %zu", count, options.channels.size()));
    ChannelMap map(count);
    for (size_t i = 0; i < options.channels.size(); ++i) {
        const uint32_t channel = options.channels[i];
        if (channel > fileChannels)
            throw ToolFailure(formatText("the file has %u channels, not %u", fileChannels, channel));
        if (channel > 0)
            map[i] = {{channel - 1}};
    }
    return map;
}

/// The frames that are played in all.
uint64_t lengthOf(const Options& options, const SoundFileReader& file)
{
    if (options.isRepeated && file.isStream())
        throw ToolFailure("--loop needs a file: a pipe cannot be read again");
    const uint64_t all = options.isRepeated ? UINT64_MAX : file.frameCount();
    const std::optional<double> seconds = options.audio.seconds();
    if (!seconds || *seconds * file.sampleRate() >= static_cast<double>(all))
        return all;
    return std::max<uint64_t>(1, static_cast<uint64_t>(std::llround(*seconds * file.sampleRate())));
}

/// The time played, and a bar of how much of the whole that is.
std::string statusOf(const FilePlayer& player, double rate, size_t width)
{
    const auto played = static_cast<double>(player.framesPlayed());
    const std::optional<uint64_t> all = player.frameCount();
    if (!all)
        return formatSeconds(played / rate) + " played   Ctrl-C ends";
    const auto whole = static_cast<double>(*all);
    const std::string times = formatSeconds(played / rate) + " of " + formatSeconds(whole / rate) + "  ";
    const size_t room = width > times.size() ? width - times.size() : 0;
    const auto done = static_cast<size_t>(static_cast<double>(room) * played / whole);
    std::string bar;
    for (size_t i = 0; i < room; ++i)
        bar += i < done ? "━" : "─";
    return times + bar;
}

/// The runner's sample time at which everything up to `endTime` has been heard: outputs are a block behind, and a cycle
/// or two lie between here and the loudspeaker, beside the device's own latency.
uint64_t heardTime(const RunnerSession& session, uint64_t endTime)
{
    const AudioObjectID device = session.contextDevice();
    const auto frames = [device](uint32_t selector) {
        return readValue<uint32_t>(device, addressOf(selector, HALDirection::Output)).value_or(0);
    };
    return endTime + session.frameCount() +
           uint64_t{2} * std::max(session.frameCount(), session.statistics().cycleFrames()) +
           frames(kAudioDevicePropertyLatency) + frames(kAudioDevicePropertySafetyOffset);
}

void playToTheEnd(RunnerSession& session, FilePlayer& player, SessionScreen& screen)
{
    bool isOpen = false;
    std::optional<uint64_t> heard;
    while (screen.wait() && !(heard && session.sampleTime() >= *heard)) {
        if (!isOpen && session.isSettled()) {
            isOpen = true;
            session.beginCounting();
            player.open();
        }
        player.feed();
        if (const std::optional<uint64_t> end = player.endTime(); end && !heard)
            heard = heardTime(session, *end);
        screen.draw(player.meters(), statusOf(player, session.sampleRate(), screen.width()));
    }
}

std::string resultOf(const FilePlayer& player, double rate)
{
    return formatCount(player.framesPlayed(), "frame", "frames") +
           (player.frameCount() ? " of " + formatCount(*player.frameCount(), "", "") : std::string(" ")) +
           "played (" + formatSeconds(static_cast<double>(player.framesPlayed()) / rate) + "), " +
           formatCount(player.underruns(), "underrun", "underruns");
}

void run(Options& options)
{
    SoundFileReader file(options.file, SoundFormat::toRead(options.format));
    if (options.audio.sampleRate().value_or(file.sampleRate()) != file.sampleRate())
        throw ToolFailure(
            "the file is at " + formatRate(file.sampleRate()) +
            " and is played so; devices that run otherwise are brought to it. Leave --rate out");
    options.audio.find();
    std::vector<ChannelMap> maps;
    for (const DeviceSelection& output : options.audio.outputs())
        maps.push_back(mapFor(options, file.channelCount(), output));
    file.setFrameCount(lengthOf(options, file));
    const double rate = file.sampleRate();
    const uint32_t channels = file.channelCount();
    const Interrupts interrupts;
    RunnerSession session(interrupts, options.audio.frameCount(), rate, options.audio.quality());
    const CXRef<FilePlayer> player =
        FilePlayer::initWithFile(std::move(file), options.audio.outputs(), std::move(maps));
    player->addTo(session);
    if (!session.start())
        return;
    std::cout << clipToWidth(singleLine(std::filesystem::path(options.file).filename().string()), 40)
              << " -> " << namesOf(options.audio.outputs()) << ", "
              << formatCount(channels, "channel", "channels") << ", " << formatRate(rate) << std::endl;
    SessionScreen screen(session);
    try {
        playToTheEnd(session, *player, screen);
    } catch (const ToolFailure&) {
        screen.finish(resultOf(*player, rate));
        throw;
    }
    session.stop();
    screen.finish(resultOf(*player, rate));
}

} // namespace

void registerPlayCommand(CLI::App& app)
{
    CLI::App* command = app.add_subcommand("play", "Play a sound file, or sound from a pipe, on devices");
    const auto options = std::make_shared<Options>(*command);
    command
        ->add_option("file", options->file,
                     "WAV, FLAC, Ogg, or what else libsndfile reads; - is standard input")
        ->required();
    options->audio.addOutputs("A device to play on; the default output if not given");
    options->audio.useDefaults();
    options->audio.addSeconds("End after so much sound");
    command->add_flag("--loop", options->isRepeated, "Begin again at the end, until Ctrl-C or for --seconds");
    command->add_option("--format", options->format, "Raw samples: s16:RATE:CHANNELS or f32:RATE:CHANNELS");
    CLI::Option* const channels =
        command
            ->add_option("--channels", options->channels,
                         "For each channel of a device, which of the file it plays; 0 for none: 2,1")
            ->delimiter(',');
    command
        ->add_flag("--downmix", options->isDownmixed,
                   "Mix all channels into those of a device that has fewer")
        ->excludes(channels);
    command->callback([options] { run(*options); });
}
