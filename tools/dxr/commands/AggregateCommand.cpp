#include "Commands.h"

#include "DeviceProperties.h"
#include "SessionScreen.h"

#include <algorithm>
#include <dxr/CXValue.h>
#include <unistd.h>

namespace {

struct Options : HardwareChoice {
    using HardwareChoice::HardwareChoice;
    std::string name;
    std::vector<std::string> devices;
    std::optional<std::string> clock;
    std::optional<uint32_t> frames;
    std::optional<double> rate, seconds;
};

/// An aggregate device that exists as long as this object.
class Aggregate {
public:
    explicit Aggregate(const Options& options)
    {
        CXPlist description{{"uid", "dxr-aggregate-" + std::to_string(getpid())},
                            {"name", options.name},
                            {"subdevices", CXPlist::array()},
                            {"private", 1}};
        for (const std::string& wanted : options.devices) {
            const DeviceReport device = findDevice(wanted);
            description["subdevices"].push_back({{"uid", device.uid}});
            _names.push_back(device.shortName());
        }
        if (options.clock)
            description["master"] = findDevice(*options.clock).uid;
        const HALStatus status =
            AudioHardwareCreateAggregateDevice(CXValue::initWithPlist(description).get(), &_deviceID);
        if (status != kAudioHardwareNoError)
            throw ToolFailure("these devices cannot be combined: " + textOf(status) +
                              (options.clock ? "; is the clock device one of them?" : ""));
    }
    ~Aggregate() { AudioHardwareDestroyAggregateDevice(_deviceID); }
    Aggregate(const Aggregate&) = delete;
    Aggregate& operator=(const Aggregate&) = delete;

    AudioObjectID deviceID() const { return _deviceID; }
    /// Waits, for up to two seconds, until the device manager has the aggregate's device objects.
    DeviceReport report() const
    {
        std::optional<DeviceReport> report;
        comesTrue([&] {
            report = DeviceReport::read(_deviceID);
            return report && std::ranges::all_of(report->directions, [](const DirectionReport& direction) {
                       return direction.channelCount == 0 || direction.device;
                   });
        });
        if (!report)
            throw ToolFailure("the aggregate is gone");
        return *report;
    }
    /// The status of each sub-device, one line each.
    std::vector<std::string> lines() const
    {
        const std::vector<AudioAggregateSubDeviceStatus> all = subDeviceStatus(_deviceID);
        size_t widest = 0;
        for (const std::string& name : _names)
            widest = std::max(widest, displayWidth(name));
        std::vector<std::string> lines;
        for (size_t i = 0; i < std::min(all.size(), _names.size()); ++i)
            lines.push_back(fitLeft(_names[i], widest) + "  " + _text(all[i]));
        return lines;
    }

private:
    static std::string _text(const AudioAggregateSubDeviceStatus& status)
    {
        if (status.deviceID == kAudioObjectUnknown)
            return "absent";
        if (status.isClock)
            return "clock";
        if (!status.isRunning)
            return "not running";
        std::string text =
            status.isCompensated ? formatText("%+9.3f ppm", status.partsPerMillion) : "same clock";
        if (status.inputDelayFrames > 0.0)
            text += formatText("  in %6.0f of %.0f frames", status.inputLevelFrames, status.inputDelayFrames);
        if (status.outputDelayFrames > 0.0)
            text +=
                formatText("  out %6.0f of %.0f frames", status.outputLevelFrames, status.outputDelayFrames);
        return text + "  " + formatCount(status.resynchronisations, "resync") + "  " +
               formatCount(status.lostFrames, "frame") + " lost";
    }

    AudioObjectID _deviceID = kAudioObjectUnknown;
    std::vector<std::string> _names; // printable
};

/// Runs the aggregate silently until the time has passed or the user ends it.
void runSession(RunnerSession& session, const Aggregate& aggregate, std::optional<double> seconds)
{
    session.beginCounting();
    SessionScreen screen(session);
    std::string last;
    while (screen.wait() && !(seconds && session.seconds() >= *seconds)) {
        std::vector<std::string> lines = aggregate.lines();
        last = joined(lines, "\n");
        lines.push_back(formatSeconds(session.seconds()) + "   Ctrl-C ends");
        screen.draw(lines);
    }
    session.stop();
    screen.finish(last);
}

void run(Options& options)
{
    const Interrupts interrupts;
    const Aggregate aggregate(options);
    const std::string name = shortText(options.name, 40);
    if (options.rate)
        setSampleRate(name, aggregate.deviceID(), *options.rate);
    if (options.frames)
        setAndWait(name, aggregate.deviceID(), DXRPropertyAddress::deviceBufferFrameSize(), *options.frames,
                   formatText("cycle of %u frames", *options.frames));
    const DeviceReport device = aggregate.report();
    RunnerSession session(interrupts, std::nullopt, std::nullopt);
    // Running one direction runs the whole aggregate; for both, the runner would create another aggregate.
    const bool hasOutput = device[HALDirection::Output].channelCount > 0;
    session.add(DeviceSelection::of(device, hasOutput ? HALDirection::Output : HALDirection::Input),
                [hasOutput](uint64_t, DXRBuffer& buffer) {
                    if (hasOutput)
                        buffer.mute();
                });
    std::cout << name << ": " << device[HALDirection::Input].channelCount << " in, "
              << device[HALDirection::Output].channelCount << " out, " << formatRate(device.sampleRate)
              << ", cycles of " << device.bufferFrameSize << " frames" << std::endl;
    if (session.start())
        runSession(session, aggregate, options.seconds);
}

} // namespace

void registerAggregateCommand(CLI::App& app)
{
    CLI::App* aggregate = app.add_subcommand("aggregate", "Devices that consist of several devices");
    aggregate->require_subcommand(1);
    const auto [command, options] =
        addCommand(*aggregate, "create",
                   "Combine devices into one while the command runs, and show how their clocks differ", run);
    addRequired(command, "name", options.name, "The name of the new device");
    addRequired(
        command, "devices", options.devices,
        "The devices, in the order of their channels: UID, reference, a part of the name, or 'default'");
    command.add_option("--clock", options.clock,
                       "The device whose clock the others follow; the first if not given");
    command.add_option("--frames", options.frames, "Frames of a cycle")->check(aboveZero);
    command.add_option("--rate", options.rate, "The sample rate in Hz")->check(aboveZero);
    command.add_option("--seconds", options.seconds, "The duration; until Ctrl-C if not given")
        ->check(aboveZero);
}
