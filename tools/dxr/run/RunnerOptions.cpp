#include "RunnerOptions.h"

#include "Commands.h"
#include "DeviceWatch.h"
#include "Interrupts.h"

#include <fstream>

constexpr const char* aboutDevices =
    "A DEVICE is 'default', a UID, a reference, or a part of a name. CHANNELS are counted from 1,\n"
    "as in 'usb:1,2' or 'desk:3-6'; by default, all channels of the device are used. An option that\n"
    "takes a DEVICE may be repeated.";

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

void RunnerOptions::addSeconds(const std::string& about)
{
    _command.add_option("--seconds,--duration", _seconds, about)->check(aboveZero);
}

void RunnerOptions::find()
{
    if (_isQuiet) {
        // Never destroyed: std::cout is flushed at the very end of the process.
        static auto* const nowhere = new std::ofstream("/dev/null");
        std::cout.rdbuf(nowhere->rdbuf());
    }
    _waits ? _waitForDevices() : _select();
}

void RunnerOptions::_select()
{
    _inputs = DeviceSelection::findAll(_inputNames, HALDirection::Input);
    _outputs = DeviceSelection::findAll(_outputNames, HALDirection::Output);
}

void RunnerOptions::_waitForDevices()
{
    constexpr int milliseconds = 500; // a server without devices may end
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
    } while (interrupts.wait(milliseconds, DeviceWatch::fd()));
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
