#include "Commands.h"

#include "ChromeTraceWriter.h"
#include "CyclePicture.h"
#include "DisplayText.h"
#include "LoopPatch.h"
#include "RunnerOptions.h"
#include "SessionScreen.h"
#include "TextFormat.h"
#include "ToolFailure.h"

#include <filesystem>
#include <iostream>

namespace {

constexpr const char* about =
    "Runs devices as 'dxr loop' does, the default ones if none are named, and writes the times\n"
    "of each cycle as Chrome trace events, which chrome://tracing and ui.perfetto.dev show, and\n"
    "a picture of them beside it.";

constexpr double usualSeconds = 10.0;

struct Options {
    explicit Options(CLI::App& command) : audio(command, about) {}
    RunnerOptions audio;
    std::string file;
};

/// Beside the trace: its name, but .svg.
std::string pictureNameFor(const std::string& trace)
{
    std::filesystem::path picture = trace;
    picture.replace_extension(".svg");
    return picture == trace ? trace + ".svg" : picture.string();
}

/// Which devices are connected, for the picture.
void notePresence(const RunnerSession& session, CyclePicture& picture)
{
    std::vector<bool> isConnected;
    for (const SessionDevice& device : session.devices())
        isConnected.push_back(device.isConnected());
    picture.notePresence(isConnected);
}

void runTrace(RunnerSession& session, LoopPatch& patch, double seconds, ChromeTraceWriter& file,
              CyclePicture& picture, SessionScreen& screen)
{
    bool isOpen = false;
    while (screen.wait() && session.seconds() < seconds) {
        for (const std::string& line : screen.lastMessages())
            file.mark(line);
        notePresence(session, picture);
        if (!isOpen && session.isSettled()) {
            isOpen = true;
            session.beginCounting();
            patch.open();
        }
        const CycleStatistics& cycles = session.statistics();
        screen.draw(patch.meters(), formatSeconds(session.seconds()) + " of " + formatSeconds(seconds) +
                                        ", " + formatCount(cycles.cyclesSeen(), "cycle", "cycles") + ", " +
                                        formatCount(cycles.lateCycles(), "late", "late"));
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
    options.audio.find();
    if (!options.audio.namesDevices())
        options.audio.takeDefaults();
    const Interrupts interrupts;
    const std::string title = titleOf(options.audio);
    ChromeTraceWriter file(options.file, "dxr trace: " + title);
    RunnerSession session(interrupts, options.audio.frameCount(), options.audio.sampleRate());
    CyclePicture picture;
    session.setRecords([&](std::span<const DXRCycleRecord> records) {
        file.write(records);
        for (const DXRCycleRecord& record : records)
            picture.note(record);
    });
    const CXRef<LoopPatch> patch =
        LoopPatch::initWithSelections(options.audio.inputs(), options.audio.outputs());
    patch->addTo(session);
    if (!session.start())
        return;
    std::cout << title << ", " << formatRate(session.sampleRate()) << std::endl;
    notePresence(session, picture);
    SessionScreen screen(session);
    runTrace(session, *patch, options.audio.seconds().value_or(usualSeconds), file, picture, screen);
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
    CLI::App* command =
        app.add_subcommand("trace", "Write down when every cycle of a run was due, came and ended");
    const auto options = std::make_shared<Options>(*command);
    command
        ->add_option(
            "file", options->file,
            "The JSON file to write, one that is there is replaced; the picture has its name, but .svg")
        ->required();
    options->audio.addInputs("A device to hear");
    options->audio.addOutputs("A device to play on");
    options->audio.addSeconds("For how long; 10 if not given");
    command->callback([options] { run(*options); });
}
