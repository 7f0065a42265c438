#include "Commands.h"

#include "FileRecorder.h"
#include "RunnerOptions.h"
#include "SessionScreen.h"

#include <cmath>

namespace {

struct Options : RunnerOptions {
    using RunnerOptions::RunnerOptions;
    std::string file, format;
    uint32_t bits = 0;
};

/// Writes up to `maxFrames`, or until the user ends it. False if the devices stopped delivering frames.
bool record(RunnerSession& session, FileRecorder& recorder, SoundFileWriter& file, uint64_t maxFrames,
            SessionScreen& screen)
{
    constexpr double patienceSeconds = 10.0;
    const double rate = session.sampleRate();
    session.setSettled([&] { recorder.open(rate); });
    double lastFrameAt = session.seconds();
    while (screen.wait() && file.framesWritten() < maxFrames) {
        const uint64_t before = file.framesWritten();
        if (recorder.isOpen())
            recorder.writeTo(file, maxFrames, false);
        if (file.framesWritten() != before)
            lastFrameAt = session.seconds();
        if (maxFrames != UINT64_MAX && session.seconds() - lastFrameAt > patienceSeconds)
            return false; // a program that waits for the recording's end would wait forever
        screen.draw(recorder.meters(), formatFrames(file.framesWritten(), rate) + " recorded   Ctrl-C ends");
    }
    return true;
}

std::string resultOf(const SoundFileWriter& file, const FileRecorder& recorder, double rate)
{
    return formatCount(file.framesWritten(), "frame") + " written (" +
           formatFrames(file.framesWritten(), rate) + "), " + formatNumber(recorder.droppedFrames()) +
           " lost because the disk was too slow, " + formatNumber(recorder.silentFrames()) +
           " silent because cycles were lost";
}

void run(Options& options)
{
    const SoundFormat format = SoundFormat::toWrite(options.file, options.format, options.bits);
    options.find();
    const Interrupts interrupts;
    RunnerSession session(interrupts, options.frameCount(), options.sampleRate(), options.quality());
    const CXRef<FileRecorder> recorder = FileRecorder::initWithInputs(options.inputs());
    recorder->addTo(session);
    if (!session.start())
        return;
    const double rate = session.sampleRate();
    const std::optional<double> seconds = options.seconds();
    const uint64_t maxFrames = seconds ? static_cast<uint64_t>(std::llround(*seconds * rate)) : UINT64_MAX;
    SoundFileWriter file(options.file, format, recorder->channelCount(), rate, seconds.value_or(0.0));
    std::cout << namesOf(options.inputs()) << " -> " << shortText(options.file, 60) << ", "
              << formatCount(recorder->channelCount(), "channel") << ", " << formatRate(rate) << std::endl;
    SessionScreen screen(session);
    bool isComplete = false;
    try {
        isComplete = record(session, *recorder, file, maxFrames, screen);
        session.stop();
        if (recorder->isOpen())
            recorder->writeTo(file, maxFrames, true); // the remaining frames
        file.finish();
    } catch (const ToolFailure&) {
        file.finish();
        screen.finish(resultOf(file, *recorder, rate));
        throw;
    }
    screen.finish(resultOf(file, *recorder, rate));
    if (!isComplete)
        throw ToolFailure("the devices stopped delivering audio");
}

} // namespace

void registerRecordCommand(CLI::App& app)
{
    const auto [command, options] =
        addCommand(app, "record", "Record devices to a sound file, or into a pipe", run);
    addRequired(command, "file", options.file,
                "The file to write; an existing one is replaced. - is standard output");
    options.setAbout(
        "All devices are recorded to one file, with their channels in the order given. A device that\n"
        "disconnects is silent until it returns.");
    options.addInputs("A device to record; the default input if not given");
    options.useDefaults();
    options.addSeconds("End after this many seconds of sound");
    command.add_option("--format", options.format,
                       SoundFormat::names() + "; by the file's name if not given");
    command.add_option("--bits", options.bits, "Bits of a sample: 16, 24, or 32 for floats")
        ->check(CLI::IsMember({16, 24, 32}));
}
