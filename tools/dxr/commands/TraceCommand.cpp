#include "Commands.h"

#include "ChromeTraceWriter.h"
#include "CyclePicture.h"
#include "LoopPatch.h"
#include "RunnerOptions.h"
#include "SessionScreen.h"

#include <filesystem>

namespace {

constexpr double usualSeconds = 10.0;

struct Options : RunnerOptions {
    using RunnerOptions::RunnerOptions;
    std::string file;
};

std::string pictureNameFor(const std::string& trace)
{
    std::filesystem::path picture = trace;
    picture.replace_extension(".svg");
    return picture == trace ? trace + ".svg" : picture.string();
}

void runTrace(RunnerSession& session, LoopPatch& patch, double seconds, ChromeTraceWriter& file,
              CyclePicture& picture, SessionScreen& screen)
{
    session.setSettled([&] { patch.setOpen(); });
    while (screen.wait() && session.seconds() < seconds) {
        for (const std::string& line : screen.lastMessages())
            file.mark(line);
        picture.notePresence(session.connections());
        const CycleStatistics& cycles = session.statistics();
        screen.draw(patch.meters(), formatSeconds(session.seconds()) + " of " + formatSeconds(seconds) +
                                        ", " + formatCount(cycles.cyclesSeen, "cycle") + ", " +
                                        formatNumber(cycles.lateCycles) + " late");
    }
}

std::string titleOf(const RunnerOptions& options)
{
    const std::string inputs = namesOf(options.inputs()), outputs = namesOf(options.outputs());
    if (inputs.empty() && outputs.empty())
        return "no device";
    return inputs + (inputs.empty() || outputs.empty() ? "" : " -> ") + outputs;
}

void run(Options& options)
{
    options.find();
    if (!options.namesDevices())
        options.takeDefaults();
    const Interrupts interrupts;
    const std::string title = titleOf(options);
    ChromeTraceWriter file(options.file, "dxr trace: " + title);
    RunnerSession session(interrupts, options.frameCount(), options.sampleRate());
    CyclePicture picture;
    session.setRecords([&](std::span<const DXRCycleRecord> records) {
        file.write(records);
        picture.note(records);
    });
    const CXRef<LoopPatch> patch = LoopPatch::initWithSelections(options.inputs(), options.outputs());
    patch->addTo(session);
    if (!session.start())
        return;
    std::cout << title << ", " << formatRate(session.sampleRate()) << std::endl;
    picture.notePresence(session.connections());
    SessionScreen screen(session);
    runTrace(session, *patch, options.seconds().value_or(usualSeconds), file, picture, screen);
    session.stop();
    file.finish();
    std::vector<std::string> names;
    for (const SessionDevice& device : session.devices())
        names.push_back(device.name());
    const std::string pictureName = pictureNameFor(options.file);
    Chart::writeFile(pictureName,
                     picture.svg(session.sampleRate(), names, title + ", " + formatRate(session.sampleRate()),
                                 session.report().front()));
    screen.finish(singleLine(options.file) + ": for chrome://tracing or Perfetto; " +
                  singleLine(pictureName));
}

} // namespace

void registerTraceCommand(CLI::App& app)
{
    const auto [command, options] =
        addCommand(app, "trace", "Record when every cycle of a run was due, began and ended", run);
    addRequired(command, "file", options.file,
                "The JSON file to write; an existing one is replaced. The picture has its name, with .svg");
    options.setAbout(
        "Runs devices like 'dxr loop', by default the default ones, and writes the times of every\n"
        "cycle as Chrome trace events, for chrome://tracing and ui.perfetto.dev, and as a picture.");
    options.addInputs("A device to record");
    options.addOutputs("A device to play on");
    options.addSeconds("The duration; 10 if not given");
}
