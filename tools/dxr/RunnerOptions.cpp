#include "RunnerOptions.h"

namespace {

constexpr const char* aboutDevices =
    "A DEVICE is an ID, a UID, a reference, or a part of a name. CHANNELS are counted from 1,\n"
    "as in 'usb:1,2' or 'desk:3-6'; all of the device's if not given. --in and --out can be\n"
    "given several times.";

} // namespace

RunnerOptions::RunnerOptions(CLI::App& command, const std::string& about)
    : _command(command), _hardware(command)
{
    command.footer(about + "\n\n" + aboutDevices);
    command.add_option("--frames", _frames, "Frames of a block; the devices' cycle if not given")
        ->check(CLI::PositiveNumber);
    command.add_option("--rate", _rate, "The sample rate in Hz; the devices' if not given")
        ->check(CLI::PositiveNumber);
}

CLI::Option* RunnerOptions::_addDevices(const char* name, std::vector<std::string>& texts,
                                        const std::string& what)
{
    return _command.add_option(name, texts, what)->allow_extra_args(false)->type_name("DEVICE[:CHANNELS]");
}

CLI::Option* RunnerOptions::addSeconds(const std::string& what)
{
    return _command.add_option("--seconds", _seconds, what)->check(CLI::PositiveNumber);
}

CXRef<SimulatedHardware> RunnerOptions::find()
{
    CXRef<SimulatedHardware> simulated = _hardware.apply();
    _foundInputs = DeviceSelection::findAll(_inputs, HALDirection::Input);
    _foundOutputs = DeviceSelection::findAll(_outputs, HALDirection::Output);
    return simulated;
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
