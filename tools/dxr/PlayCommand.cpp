#include "PlayCommand.h"

#include "DeviceLookup.h"
#include "DeviceSettings.h"
#include "DisplayText.h"
#include "FilePlayer.h"
#include "HardwareChoice.h"
#include "LiveLines.h"
#include "TextFormat.h"
#include "ToolFailure.h"

#include <algorithm>
#include <filesystem>
#include <iostream>

namespace {

struct Options {
    explicit Options(CLI::App& command) : hardware(command) {}
    HardwareChoice hardware;
    std::string file, output;
    std::optional<uint32_t> frames;
    std::optional<double> rate;
    std::vector<uint32_t> channels;
};

std::string nameOf(const DeviceReport& device)
{
    constexpr size_t columns = 30;
    return clipToWidth(singleLine(device.name), columns);
}

/// Finds the device and makes it run at the file's rate.
DeviceReport preparedDevice(const Options& options, const SoundFileReader& file)
{
    const DeviceReport device = DeviceLookup::find(options.output, HALDirection::Output);
    if (options.rate && *options.rate != file.sampleRate())
        throw ToolFailure("the file is at " + formatRate(file.sampleRate()) +
                          " and is not converted; leave --rate out");
    if (device.sampleRate != file.sampleRate())
        setSampleRate(nameOf(device), device.deviceID, file.sampleRate());
    if (options.frames)
        setBufferFrameSize(nameOf(device), device.deviceID, *options.frames);
    const std::optional<DeviceReport> now = DeviceReport::read(device.deviceID);
    if (!now)
        throw ToolFailure(nameOf(device) + ": the device is gone");
    return *now;
}

ChannelMap mapFor(const Options& options, const SoundFileReader& file, const DeviceReport& device)
{
    const DirectionReport& side = device[HALDirection::Output];
    if (options.channels.empty()) {
        const std::array<uint32_t, 2> stereo = side.stereoChannels.value_or(std::array<uint32_t, 2>{1, 2});
        return straightChannelMap(file.channelCount(), side.channelCount, stereo[0], stereo[1]);
    }
    ChannelMap map;
    for (const uint32_t channel : options.channels) {
        if (channel > file.channelCount())
            throw ToolFailure(formatText("the file has %u channels, not %u", file.channelCount(), channel));
        map.push_back(channel == 0 ? channelOfNone : channel - 1);
    }
    if (map.size() > side.channelCount)
        throw ToolFailure(nameOf(device) +
                          formatText(": has %u channels, not %zu", side.channelCount, map.size()));
    return map;
}

void draw(LiveLines& live, FilePlayer& player, double rate, const Terminal& terminal)
{
    if (!terminal.isLive())
        return;
    const size_t width = terminal.columns() - 1;
    std::vector<std::string> lines = player.meter().draw("out", width, terminal);
    const std::string times = formatSeconds(static_cast<double>(player.framesPlayed()) / rate) + " of " +
                              formatSeconds(static_cast<double>(player.frameCount()) / rate);
    const size_t room = width > times.size() + 2 ? width - times.size() - 2 : 0;
    const auto done =
        static_cast<size_t>(static_cast<double>(room) * static_cast<double>(player.framesPlayed()) /
                            static_cast<double>(player.frameCount()));
    std::string bar;
    for (size_t i = 0; i < room; ++i)
        bar += i < done ? "━" : "─";
    lines.push_back(clipToWidth(times, width) + "  " + bar);
    live.draw(lines);
}

void printResult(FilePlayer& player, double rate)
{
    CycleMonitor& monitor = player.monitor();
    std::cout << formatCount(player.framesPlayed(), "frame", "frames") << " of "
              << formatCount(player.frameCount(), "", "") << "played ("
              << formatSeconds(static_cast<double>(player.framesPlayed()) / rate) << "), cycles of "
              << monitor.cycleFrames() << " frames: " << formatCount(monitor.gaps(), "gap", "gaps") << " ("
              << formatCount(monitor.lostFrames(), "frame", "frames") << "), "
              << formatCount(player.underruns(), "underrun", "underruns") << "\n";
}

void run(const Options& options)
{
    constexpr int tickMilliseconds = 30;
    SoundFileReader file(options.file);
    options.hardware.apply();
    const DeviceReport device = preparedDevice(options, file);
    ChannelMap map = mapFor(options, file, device);
    const double rate = file.sampleRate();
    const Interrupts interrupts;
    std::cout << clipToWidth(singleLine(std::filesystem::path(options.file).filename().string()), 40)
              << " -> " << nameOf(device) << ", " << formatCount(file.channelCount(), "channel", "channels")
              << ", " << formatRate(rate) << std::endl;
    const CXRef<FilePlayer> player = FilePlayer::initWithFile(std::move(file), device, std::move(map));
    const Terminal terminal;
    LiveLines live(terminal);
    AudioRun run(interrupts);
    player->addTo(run);
    try {
        if (!run.start())
            return;
        while (run.wait(tickMilliseconds) && !player->isOver()) {
            player->feed();
            draw(live, *player, rate, terminal);
        }
        run.stop();
    } catch (const ToolFailure&) {
        live.clear();
        printResult(*player, rate);
        throw;
    }
    live.clear();
    printResult(*player, rate);
}

} // namespace

void registerPlayCommand(CLI::App& app)
{
    CLI::App* command = app.add_subcommand("play", "Play a sound file on a device");
    const auto options = std::make_shared<Options>(*command);
    command->add_option("file", options->file, "The file: WAV, or what else libsndfile reads")->required();
    command->add_option("--out", options->output, "The device: ID, UID, or a part of its name")->required();
    command->add_option("--frames", options->frames, "Frames of a cycle")->check(CLI::PositiveNumber);
    command->add_option("--rate", options->rate, "Insist on this rate, in Hz; the file's is used anyway")
        ->check(CLI::PositiveNumber);
    command
        ->add_option("--channels", options->channels,
                     "For each channel of the device, which of the file it plays; 0 for none: 2,1")
        ->delimiter(',');
    command->callback([options] { run(*options); });
}
