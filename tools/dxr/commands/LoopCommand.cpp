#include "Commands.h"

#include "LoopPatch.h"
#include "RunnerOptions.h"
#include "SessionScreen.h"
#include "TextFormat.h"

#include <iostream>

namespace {

constexpr const char* about =
    "The channels of all inputs, side by side in the order given, are played on every output,\n"
    "the first on its first channel and so on; a single one on both of a stereo pair. Devices\n"
    "of different rates and clocks are brought together. One that goes is taken up again when\n"
    "it comes back.";

/// Runs the loop until it has lasted `seconds`, if given, or the user ends it.
void runLoop(RunnerSession& session, LoopPatch& patch, std::optional<double> seconds, SessionScreen& screen)
{
    constexpr double graceSeconds = 1.0; // cycles that are lost must not keep it running forever
    const double rate = session.sampleRate();
    const auto passed = [&] { return static_cast<double>(patch.framesPassed()) / rate; };
    std::optional<double> opened;
    const auto isOver = [&] {
        return seconds && opened &&
               (passed() >= *seconds || session.seconds() - *opened >= *seconds + graceSeconds);
    };
    while (screen.wait() && !isOver()) {
        if (!opened && session.isSettled()) {
            opened = session.seconds();
            session.beginCounting();
            patch.open();
            const std::optional<double> roundTrip = session.roundTripSeconds();
            screen.print(formatText("Sound passes, in blocks of %u frames", session.frameCount()) +
                         (roundTrip ? formatText("; round trip %.0f frames (%.1f ms)", *roundTrip * rate,
                                                 1000.0 * *roundTrip)
                                    : std::string()));
        }
        const RunnerSession::Counts& counts = session.counts();
        screen.draw(patch.meters(),
                    formatSeconds(passed()) + "  " + formatCount(counts.lostFrames, "frame", "frames") +
                        " lost, " + formatCount(counts.lateCycles, "late cycle", "late cycles") + ", " +
                        formatCount(counts.restarts, "restart", "restarts") + "   Ctrl-C ends");
    }
}

void run(RunnerOptions& options)
{
    options.find();
    const Interrupts interrupts;
    RunnerSession session(interrupts, options.frameCount(), options.sampleRate(), options.quality());
    const CXRef<LoopPatch> patch = LoopPatch::initWithSelections(options.inputs(), options.outputs());
    patch->addTo(session);
    if (!session.start())
        return;
    std::cout << namesOf(options.inputs()) << " -> " << namesOf(options.outputs()) << ", "
              << formatRate(session.sampleRate()) << std::endl;
    SessionScreen screen(session);
    runLoop(session, *patch, options.seconds(), screen);
    session.stop();
    screen.finish(formatCount(patch->framesPassed(), "frame", "frames") + " moved (" +
                  formatSeconds(static_cast<double>(patch->framesPassed()) / session.sampleRate()) + ")");
}

} // namespace

void registerLoopCommand(CLI::App& app)
{
    CLI::App* command = app.add_subcommand("loop", "Route inputs to outputs");
    const auto options = std::make_shared<RunnerOptions>(*command, about);
    options->addInputs("A device to record; the default input if not given");
    options->addOutputs("A device to play on; the default output if not given");
    options->useDefaults();
    options->addSeconds("End after so much sound");
    command->callback([options] { run(*options); });
}
