#include "Commands.h"

#include "FilePlayer.h"
#include "RunnerOptions.h"
#include "SessionScreen.h"

#include <cmath>
#include <filesystem>

namespace {

struct Options : RunnerOptions {
    using RunnerOptions::RunnerOptions;
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
                      << " channels are not played; --downmix mixes them, --channels selects" << std::endl;
        return straightChannelMap(fileChannels, output);
    }
    if (options.channels.size() > count)
        throw ToolFailure(output.shortName() + " plays " + formatCount(count, "channel") +
                          formatText(", not %zu", options.channels.size()));
    ChannelMap map(count);
    for (size_t i = 0; i < options.channels.size(); ++i) {
        const uint32_t channel = options.channels[i];
        if (channel > fileChannels)
            throw ToolFailure(formatText("no channel %u in the file: its last is %u", channel, fileChannels));
        if (channel > 0)
            map[i] = {{channel - 1}};
    }
    return map;
}

uint64_t lengthOf(const Options& options, const SoundFileReader& file)
{
    if (options.isRepeated && file.isStream())
        throw ToolFailure("--loop needs a file: a pipe cannot be read again");
    const uint64_t all = options.isRepeated ? UINT64_MAX : file.frameCount();
    const std::optional<double> seconds = options.seconds();
    if (!seconds || *seconds * file.sampleRate() >= static_cast<double>(all))
        return all;
    return std::max<uint64_t>(1, static_cast<uint64_t>(std::llround(*seconds * file.sampleRate())));
}

/// The time played and, if the length is known, a progress bar.
std::string statusOf(const FilePlayer& player, double rate, size_t width)
{
    const uint64_t played = player.framesPlayed();
    const std::optional<uint64_t> all = player.frameCount();
    if (!all)
        return formatFrames(played, rate) + " played   Ctrl-C ends";
    const std::string times = formatFrames(played, rate) + " of " + formatFrames(*all, rate) + "  ";
    const double share = static_cast<double>(played) / static_cast<double>(*all);
    const auto [done, rest] = shareBar(share, width - std::min(width, times.size()), "━", "─");
    return times + done + rest;
}

void playToTheEnd(RunnerSession& session, FilePlayer& player, SessionScreen& screen)
{
    std::optional<uint64_t> heardAt; // the runner's sample time when the last frame leaves the device
    session.setSettled([&] { player.open(); });
    while (screen.wait() && !(heardAt && session.sampleTime() >= *heardAt)) {
        player.feed();
        if (const std::optional<uint64_t> end = player.endTime(); end && !heardAt) {
            const double latency = session.latencySeconds(HALDirection::Output).value_or(0.0);
            heardAt = *end + session.frameCount() + static_cast<uint64_t>(latency * session.sampleRate());
        }
        screen.draw(player.meters(), statusOf(player, session.sampleRate(), screen.width()));
    }
}

std::string resultOf(const FilePlayer& player, double rate)
{
    return formatCount(player.framesPlayed(), "frame") +
           (player.frameCount() ? " of " + formatNumber(*player.frameCount()) : "") + " played (" +
           formatFrames(player.framesPlayed(), rate) + "), " + formatCount(player.underruns(), "underrun");
}

void run(Options& options)
{
    SoundFileReader file(options.file, SoundFormat::toRead(options.format));
    if (options.sampleRate().value_or(file.sampleRate()) != file.sampleRate())
        throw ToolFailure("--rate differs from the file's " + formatRate(file.sampleRate()) +
                          ": leave it out, the file is converted to the rates of the devices");
    options.find();
    std::vector<ChannelMap> maps;
    for (const DeviceSelection& output : options.outputs())
        maps.push_back(mapFor(options, file.channelCount(), output));
    file.setFrameCount(lengthOf(options, file));
    const double rate = file.sampleRate();
    const uint32_t channels = file.channelCount();
    const Interrupts interrupts;
    RunnerSession session(interrupts, options.frameCount(), rate, options.quality());
    const CXRef<FilePlayer> player =
        FilePlayer::initWithFile(std::move(file), options.outputs(), std::move(maps));
    player->addTo(session);
    if (!session.start())
        return;
    std::cout << shortText(std::filesystem::path(options.file).filename().string(), 40) << " -> "
              << namesOf(options.outputs()) << ", " << formatCount(channels, "channel") << ", "
              << formatRate(rate) << std::endl;
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
    const auto [command, options] =
        addCommand(app, "play", "Play a sound file, or sound from a pipe, on devices", run);
    addRequired(command, "file", options.file,
                "WAV, FLAC, Ogg, or another format of libsndfile; - is standard input");
    options.setAbout(
        "Each device plays the whole file, converted to its rate. A device that disconnects resumes when\n"
        "it returns; the others continue meanwhile.");
    options.addOutputs("A device to play on; the default output if not given");
    options.useDefaults();
    options.addSeconds("End after this many seconds of sound");
    command.add_flag("--loop", options.isRepeated, "Start again at the end, until Ctrl-C or for --seconds");
    command.add_option("--format", options.format, "Raw samples: s16:RATE:CHANNELS or f32:RATE:CHANNELS");
    CLI::Option* const channels =
        command
            .add_option("--channels", options.channels,
                        "For each channel of a device, the file's channel that it plays, or 0 for none: 2,1")
            ->delimiter(',');
    command
        .add_flag("--downmix", options.isDownmixed, "Mix all channels into those of a device that has fewer")
        ->excludes(channels);
}
