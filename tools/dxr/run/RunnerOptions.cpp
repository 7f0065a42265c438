#include "RunnerOptions.h"

#include "DeviceFollower.h"
#include "DeviceLookup.h"
#include "Interrupts.h"
#include "SimulatedVisitor.h"

#include <algorithm>
#include <iostream>

namespace {

constexpr const char* aboutDevices =
    "A DEVICE is 'default', a UID, a reference, or a part of a name. CHANNELS are counted from 1,\n"
    "as in 'usb:1,2' or 'desk:3-6'; all of the device's if not given. --in and --out can be\n"
    "given several times.";

/// CLI11's own prints the largest number there is, to its last digit.
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
    static auto* buffer = new Nowhere; // never destroyed: std::cout is flushed when all else has ended
    return *buffer;
}

} // namespace

RunnerOptions::RunnerOptions(CLI::App& command, const std::string& about)
    : _command(command), _hardware(command)
{
    command.footer(about + "\n\n" + aboutDevices);
    command.add_option("--frames", _frames, "Frames of a block; the devices' cycle if not given")
        ->check(aboveZero);
    command.add_flag("--wait", _waits, "Wait for devices that are not connected yet");
    command.add_option("--rate", _rate, "The sample rate in Hz; the devices' if not given")->check(aboveZero);
}

CLI::Option* RunnerOptions::_addDevices(const char* name, std::vector<std::string>& texts,
                                        const std::string& what)
{
    return _command.add_option(name, texts, what)->allow_extra_args(false)->type_name("DEVICE[:CHANNELS]");
}

CLI::Option* RunnerOptions::addSeconds(const std::string& what)
{
    return _command.add_option("--seconds,--duration", _seconds, what)->check(aboveZero);
}

void RunnerOptions::useDefaults()
{
    _usesDefaults = true;
    _command.add_flag("--fast", _isFast, "Convert rates with less delay and cost, and more noise");
    _command.add_flag("--quiet", _isQuiet, "Print nothing but errors");
}

void RunnerOptions::_takeDefault(HALDirection direction, std::vector<DeviceSelection>& found) const
{
    const bool isInput = direction == HALDirection::Input;
    if (found.empty() && _command.get_option_no_throw(isInput ? "--in" : "--out"))
        found.push_back(DeviceSelection::find("default", direction));
}

CXRef<SimulatedHardware> RunnerOptions::find()
{
    CXRef<SimulatedHardware> simulated = _hardware.apply();
    if (_isQuiet)
        std::cout.rdbuf(&nowhere());
    if (_waits)
        _waitForDevices(simulated);
    else
        _select();
    return simulated;
}

void RunnerOptions::_select()
{
    _foundInputs = DeviceSelection::findAll(_inputs, HALDirection::Input);
    _foundOutputs = DeviceSelection::findAll(_outputs, HALDirection::Output);
    if (!_usesDefaults)
        return;
    _takeDefault(HALDirection::Input, _foundInputs);
    _takeDefault(HALDirection::Output, _foundOutputs);
}

/// On simulated hardware a device comes after a while, as it would be plugged in.
void RunnerOptions::_waitForDevices(const CXRef<SimulatedHardware>& simulated)
{
    const Interrupts interrupts;
    DeviceFollower changes; // before the first look, so that none is missed
    std::optional<SimulatedVisitor> visitor;
    std::string reason;
    do {
        changes.take();
        try {
            return _select();
        } catch (const DeviceMissing& missing) {
            if (reason != missing.what())
                std::cout << "Waiting: " << (reason = missing.what()) << std::endl;
        }
        if (simulated && !visitor)
            visitor.emplace(simulated);
    } while (interrupts.wait(-1, changes.fd()));
    throw ToolFailure("stopped while waiting: " + reason);
}

void RunnerOptions::takeDefaults()
{
    for (const DeviceReport& report : DeviceReport::readAll(DeviceReport::Hidden::No)) {
        if (report[HALDirection::Input].isDefault)
            _foundInputs.push_back(DeviceSelection::of(report, HALDirection::Input));
        if (report[HALDirection::Output].isDefault)
            _foundOutputs.push_back(DeviceSelection::of(report, HALDirection::Output));
    }
}

std::string namesOf(const std::vector<DeviceSelection>& selections)
{
    std::string names;
    for (const DeviceSelection& selection : selections)
        names += (names.empty() ? "" : " + ") + selection.shortName();
    return names;
}
