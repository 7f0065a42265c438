#include "RunnerOptions.h"

#include "DeviceWatch.h"
#include "Interrupts.h"

#include <iostream>

namespace {

constexpr const char* aboutDevices =
    "A DEVICE is 'default', a UID, a reference, or a part of a name. CHANNELS are counted from 1,\n"
    "as in 'usb:1,2' or 'desk:3-6'; by default, all channels of the device are used. --in and --out\n"
    "may be repeated.";

/// Used instead of CLI11's validator, whose help text includes the largest double with all its digits.
const CLI::Validator aboveZero(
    [](std::string& text) {
        double number = 0.0;
        return CLI::detail::lexical_cast(text, number) && number > 0.0 ? std::string() : "must be above 0";
    },
    "");

std::streambuf& nowhere()
{
    struct Nowhere final : std::streambuf {
        int overflow(int character) override { return character; }
    };
    static auto* buffer = new Nowhere; // never destroyed: std::cout is flushed at the very end of the process
    return *buffer;
}

} // namespace

RunnerOptions::RunnerOptions(CLI::App& command) : HardwareChoice(command), _command(command)
{
    command.add_option("--frames", _frames, "Frames of a block; by default those of the devices' cycles")
        ->check(aboveZero);
    command.add_flag("--wait", _waits, "Wait for devices that are not connected yet");
    command.add_option("--rate", _rate, "The sample rate in Hz; by default that of the devices")
        ->check(aboveZero);
}

void RunnerOptions::setAbout(const std::string& about)
{
    _command.footer(about + "\n\n" + aboutDevices);
}

void RunnerOptions::_addDevices(const char* name, std::vector<std::string>& texts, const std::string& about)
{
    _command.add_option(name, texts, about)->allow_extra_args(false)->type_name("DEVICE[:CHANNELS]");
}

void RunnerOptions::addSeconds(const std::string& about)
{
    _command.add_option("--seconds,--duration", _seconds, about)->check(aboveZero);
}

void RunnerOptions::useDefaults()
{
    _usesDefaults = true;
    _command.add_flag("--fast", _isFast, "Convert rates with less delay and cost, and more noise");
    _command.add_flag("--quiet", _isQuiet, "Print nothing but errors");
}

void RunnerOptions::find()
{
    if (_isQuiet)
        std::cout.rdbuf(&nowhere());
    _waits ? _waitForDevices() : _select();
}

bool RunnerOptions::_needsDefault(const char* option, const std::vector<DeviceSelection>& found) const
{
    return _usesDefaults && found.empty() && _command.get_option_no_throw(option);
}

void RunnerOptions::_select()
{
    _inputs = DeviceSelection::findAll(_inputNames, HALDirection::Input);
    _outputs = DeviceSelection::findAll(_outputNames, HALDirection::Output);
    if (_needsDefault("--in", _inputs))
        _inputs.push_back(DeviceSelection::find("default", HALDirection::Input));
    if (_needsDefault("--out", _outputs))
        _outputs.push_back(DeviceSelection::find("default", HALDirection::Output));
}

void RunnerOptions::_waitForDevices()
{
    const Interrupts interrupts;
    DeviceWatch watch(true);
    watch.begin(); // before the first search, so that no change is missed
    std::jthread visitor;
    std::string reason;
    do {
        watch.next();
        try {
            return _select();
        } catch (const DeviceMissing& missing) {
            if (reason != missing.what())
                std::cout << "Waiting: " << (reason = missing.what()) << std::endl;
        }
        if (!visitor.joinable())
            visitor = this->visitor();
    } while (interrupts.wait(-1, DeviceWatch::fd()));
    throw ToolFailure("stopped while waiting: " + reason);
}

void RunnerOptions::takeDefaults()
{
    _inputs.clear();
    _outputs.clear();
    for (const DeviceReport& report : DeviceReport::readAll(DeviceReport::Hidden::No))
        for (const HALDirection direction : halDirections)
            if (report[direction].isDefault)
                (direction == HALDirection::Input ? _inputs : _outputs)
                    .push_back(DeviceSelection::of(report, direction));
}
