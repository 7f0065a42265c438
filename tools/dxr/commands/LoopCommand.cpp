#include "Commands.h"

#include "LoopPatch.h"
#include "RunnerOptions.h"
#include "SessionScreen.h"

namespace {

std::string roundTripText(const RunnerSession& session)
{
    const std::optional<double> in = session.latencySeconds(HALDirection::Input),
                                out = session.latencySeconds(HALDirection::Output);
    return in && out ? formatText("; round trip %.0f frames (%.1f ms)", (*in + *out) * session.sampleRate(),
                                  1e3 * (*in + *out))
                     : "";
}

/// Runs until `seconds` of sound, if given, have been played, or the user ends it.
void runLoop(RunnerSession& session, LoopPatch& patch, std::optional<double> seconds, SessionScreen& screen)
{
    constexpr double graceSeconds = 1.0; // then it ends even if lost cycles have shortened the sound
    const double rate = session.sampleRate();
    const auto passed = [&] { return static_cast<double>(patch.framesPassed()) / rate; };
    std::optional<double> opened;
    session.setSettled([&] {
        opened = session.seconds();
        patch.setOpen();
        screen.print(formatText("Sound passes, in blocks of %u frames", session.frameCount()) +
                     roundTripText(session));
    });
    const auto isOver = [&] {
        return seconds && opened &&
               (passed() >= *seconds || session.seconds() - *opened >= *seconds + graceSeconds);
    };
    while (screen.wait() && !isOver()) {
        const CycleStatistics& cycles = session.statistics();
        screen.draw(patch.meters(), formatSeconds(passed()) + "  " +
                                        formatCount(session.lostFrames(), "frame") + " lost, " +
                                        formatCount(cycles.lateCycles, "late cycle") + ", " +
                                        formatCount(cycles.restarts, "restart") + "   Ctrl-C ends");
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
    screen.finish(formatCount(patch->framesPassed(), "frame") + " moved (" +
                  formatFrames(patch->framesPassed(), session.sampleRate()) + ")");
}

} // namespace

void registerLoopCommand(CLI::App& app)
{
    const auto [command, options] = addCommand(app, "loop", "Route inputs to outputs", run);
    options.setAbout(
        "The channels of all inputs, in the order given, are played on every output: the first\n"
        "on its first channel, and so on; a single one on both channels of a stereo pair. Rates\n"
        "and clocks of the devices are converted. A device that disconnects resumes when it\n"
        "returns.");
    options.addInputs("A device to record; the default input if not given");
    options.addOutputs("A device to play on; the default output if not given");
    options.useDefaults();
    options.addSeconds("End after this many seconds of sound");
}
