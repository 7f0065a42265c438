#include "LoopCommand.h"

#include "AudioLoop.h"
#include "DeviceSettings.h"
#include "DisplayText.h"
#include "HardwareChoice.h"
#include "LiveLines.h"
#include "TextFormat.h"
#include "ToolFailure.h"

#include <iostream>

namespace {

struct Options {
    explicit Options(CLI::App& command) : hardware(command) {}
    HardwareChoice hardware;
    std::string input, output;
    std::optional<uint32_t> frames;
    std::optional<double> rate;
    std::optional<double> seconds;
};

void printDevice(const char* side, CycleMonitor& monitor)
{
    std::cout << side << formatCount(monitor.cycles(), "cycle", "cycles") << " of " << monitor.cycleFrames()
              << " frames, " << formatCount(monitor.gaps(), "gap", "gaps") << ", "
              << formatCount(monitor.lostFrames(), "frame", "frames") << " lost, "
              << formatCount(monitor.overloads(), "overload", "overloads") << ", latest cycle "
              << formatText("%.2f ms", monitor.largestLatenessMilliseconds()) << "\n";
}

void printResult(AudioLoop& loop, double rate)
{
    std::cout << formatCount(loop.framesMoved(), "frame", "frames") << " moved ("
              << formatSeconds(static_cast<double>(loop.framesMoved()) / rate) << ")\n";
    if (!loop.hasRing()) {
        printDevice("device: ", loop.inputMonitor());
        return;
    }
    printDevice("input:  ", loop.inputMonitor());
    printDevice("output: ", loop.outputMonitor());
    std::cout << "ring:   " << formatCount(loop.underruns(), "underrun", "underruns") << " ("
              << formatCount(loop.underrunFrames(), "frame", "frames") << " of silence), "
              << formatCount(loop.overruns(), "overrun", "overruns") << " ("
              << formatCount(loop.overrunFrames(), "frame", "frames") << " left out)\n";
}

void draw(LiveLines& live, AudioLoop& loop, double rate, const Terminal& terminal)
{
    if (!terminal.isLive())
        return;
    const size_t width = terminal.columns() - 1;
    std::vector<std::string> lines =
        loop.inputMeter().draw("in", loop.inputMeter().takePeaks(), width, terminal);
    std::ranges::move(loop.outputMeter().draw("out", loop.outputMeter().takePeaks(), width, terminal),
                      std::back_inserter(lines));
    const uint64_t lost =
        loop.inputMonitor().lostFrames() + (loop.hasRing() ? loop.outputMonitor().lostFrames() : 0);
    lines.push_back(clipToWidth(formatSeconds(static_cast<double>(loop.framesMoved()) / rate) + "  " +
                                    formatCount(lost, "frame", "frames") + " lost, " +
                                    formatCount(loop.underruns(), "underrun", "underruns") + "   Ctrl-C ends",
                                width));
    live.draw(lines);
}

/// Runs the loop to its end, and tells what it was like in any case.
void runLoop(AudioLoop& loop, const Options& options, double rate, const Interrupts& interrupts)
{
    constexpr int tickMilliseconds = 50;
    const Terminal terminal;
    LiveLines live(terminal);
    AudioRun run(interrupts);
    loop.addTo(run);
    bool isAnnounced = !loop.hasRing();
    using Clock = std::chrono::steady_clock;
    std::optional<Clock::time_point> begun;
    const auto isOver = [&] { // cycles that are lost must not keep it going for ever
        constexpr double graceSeconds = 1.0;
        if (!begun && loop.isFlowing())
            begun = Clock::now();
        return options.seconds && begun &&
               (static_cast<double>(loop.framesMoved()) >= *options.seconds * rate ||
                std::chrono::duration<double>(Clock::now() - *begun).count() >=
                    *options.seconds + graceSeconds);
    };
    try {
        if (!run.start())
            return;
        while (run.wait(tickMilliseconds) && !isOver()) {
            if (!isAnnounced && loop.isFlowing()) {
                isAnnounced = true;
                live.printAbove(formatText("The ring adds %llu frames (%.1f ms)",
                                           static_cast<unsigned long long>(loop.ringLatencyFrames()),
                                           1000.0 * static_cast<double>(loop.ringLatencyFrames()) / rate));
            }
            draw(live, loop, rate, terminal);
        }
        run.stop();
    } catch (const ToolFailure&) {
        live.clear();
        printResult(loop, rate);
        throw;
    }
    live.clear();
    printResult(loop, rate);
}

void run(const Options& options)
{
    options.hardware.apply();
    const DeviceReport input =
        preparedDevice(options.input, HALDirection::Input, options.rate, options.frames);
    const DeviceReport output =
        preparedDevice(options.output, HALDirection::Output, options.rate, options.frames);
    if (input.sampleRate != output.sampleRate)
        throw ToolFailure(input.shortName() + " runs at " + formatRate(input.sampleRate) + ", " +
                          output.shortName() + " at " + formatRate(output.sampleRate) +
                          "; choose one with --rate");
    const Interrupts interrupts;
    std::cout << input.shortName() << " -> " << output.shortName() << ", " << formatRate(input.sampleRate)
              << std::endl;
    const CXRef<AudioLoop> loop = AudioLoop::initWithDevices(input, output);
    runLoop(*loop, options, output.sampleRate, interrupts);
}

} // namespace

void registerLoopCommand(CLI::App& app)
{
    CLI::App* command = app.add_subcommand("loop", "Play one device's input through another's output");
    const auto options = std::make_shared<Options>(*command);
    command->add_option("--in", options->input, "The device to hear: ID, UID, or a part of its name")
        ->required();
    command->add_option("--out", options->output, "The device to play on; may be the same")->required();
    command->add_option("--frames", options->frames, "Frames of a cycle")->check(CLI::PositiveNumber);
    command->add_option("--rate", options->rate, "The sample rate of both, in Hz")
        ->check(CLI::PositiveNumber);
    command->add_option("--seconds", options->seconds, "End after so much sound")->check(CLI::PositiveNumber);
    command->callback([options] { run(*options); });
}
