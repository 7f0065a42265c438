#include "RecordCommand.h"

#include "DeviceLookup.h"
#include "DeviceSettings.h"
#include "DisplayText.h"
#include "FileRecorder.h"
#include "HardwareChoice.h"
#include "LiveLines.h"
#include "SoundFileWriter.h"
#include "TextFormat.h"
#include "ToolFailure.h"

#include <cmath>
#include <iostream>

namespace {

struct Options {
    explicit Options(CLI::App& command) : hardware(command) {}
    HardwareChoice hardware;
    std::string file, input;
    std::optional<uint32_t> frames;
    std::optional<double> rate;
    std::optional<double> seconds;
};

std::string nameOf(const DeviceReport& device)
{
    constexpr size_t columns = 30;
    return clipToWidth(singleLine(device.name), columns);
}

DeviceReport preparedDevice(const Options& options)
{
    const DeviceReport device = DeviceLookup::find(options.input, HALDirection::Input);
    if (options.rate)
        setSampleRate(nameOf(device), device.deviceID, *options.rate);
    if (options.frames)
        setBufferFrameSize(nameOf(device), device.deviceID, *options.frames);
    const std::optional<DeviceReport> now = DeviceReport::read(device.deviceID);
    if (!now)
        throw ToolFailure(nameOf(device) + ": the device is gone");
    return *now;
}

void printResult(const SoundFileWriter& file, FileRecorder& recorder, double rate)
{
    CycleMonitor& monitor = recorder.monitor();
    std::cout << formatCount(file.framesWritten(), "frame", "frames") << " written ("
              << formatSeconds(static_cast<double>(file.framesWritten()) / rate) << "), cycles of "
              << monitor.cycleFrames() << " frames: " << formatCount(monitor.gaps(), "gap", "gaps") << " ("
              << formatCount(monitor.lostFrames() + recorder.droppedFrames(), "frame", "frames")
              << " lost)\n";
}

void draw(LiveLines& live, FileRecorder& recorder, double seconds, const Terminal& terminal)
{
    if (!terminal.isLive())
        return;
    const size_t width = terminal.columns() - 1;
    std::vector<std::string> lines = recorder.meter().draw("in", width, terminal);
    lines.push_back(clipToWidth(formatSeconds(seconds) + " recorded   Ctrl-C ends", width));
    live.draw(lines);
}

/// Writes what `recorder` hears until `mostFrames` are written or the user asks to stop.
void record(SoundFileWriter& file, FileRecorder& recorder, AudioRun& run, uint64_t mostFrames, double rate)
{
    constexpr int tickMilliseconds = 30;
    const Terminal terminal;
    LiveLines live(terminal);
    bool goesOn = run.start();
    while (goesOn && file.framesWritten() < mostFrames) {
        goesOn = run.wait(tickMilliseconds);
        file.drain(recorder.ring(), mostFrames - file.framesWritten());
        draw(live, recorder, static_cast<double>(file.framesWritten()) / rate, terminal);
    }
    run.stop();
    file.drain(recorder.ring(), mostFrames - file.framesWritten());
}

void run(const Options& options)
{
    options.hardware.apply();
    const DeviceReport device = preparedDevice(options);
    const double rate = device.sampleRate;
    const uint32_t channels = device[HALDirection::Input].channelCount;
    const uint64_t mostFrames =
        options.seconds ? static_cast<uint64_t>(std::llround(*options.seconds * rate)) : UINT64_MAX;
    const Interrupts interrupts;
    SoundFileWriter file(options.file, channels, rate, options.seconds.value_or(0.0));
    std::cout << nameOf(device) << " -> " << clipToWidth(singleLine(options.file), 60) << ", "
              << formatCount(channels, "channel", "channels") << ", " << formatRate(rate) << std::endl;
    const CXRef<FileRecorder> recorder = FileRecorder::initWithDevice(device);
    AudioRun run(interrupts);
    recorder->addTo(run);
    try {
        record(file, *recorder, run, mostFrames, rate);
    } catch (const ToolFailure&) {
        file.drain(recorder->ring(), mostFrames - file.framesWritten()); // what was heard before
        file.finish();
        printResult(file, *recorder, rate);
        throw;
    }
    file.finish();
    printResult(file, *recorder, rate);
}

} // namespace

void registerRecordCommand(CLI::App& app)
{
    CLI::App* command = app.add_subcommand("record", "Record what a device hears to a WAV file");
    const auto options = std::make_shared<Options>(*command);
    command->add_option("file", options->file, "The WAV file to write; one that is there is replaced")
        ->required();
    command->add_option("--in", options->input, "The device: ID, UID, or a part of its name")->required();
    command->add_option("--frames", options->frames, "Frames of a cycle")->check(CLI::PositiveNumber);
    command->add_option("--rate", options->rate, "The sample rate in Hz")->check(CLI::PositiveNumber);
    command->add_option("--seconds", options->seconds, "End after so much sound")->check(CLI::PositiveNumber);
    command->callback([options] { run(*options); });
}
