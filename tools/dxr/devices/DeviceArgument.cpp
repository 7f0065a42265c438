#include "DeviceArgument.h"

#include "DeviceLookup.h"

DeviceArgument::DeviceArgument(CLI::App& command, Sides sides) : HardwareChoice(command)
{
    command.add_option("device", _device, "The device's UID, reference, or a part of its name")->required();
    if (sides == Sides::Both)
        return;
    CLI::Option* const input = command.add_flag("--input", _isInput, "Use the input side");
    command.add_flag("--output", _isOutput, "Use the output side; the default if the device has one")
        ->excludes(input);
}

DeviceReport DeviceArgument::report() const
{
    return findDevice(_device, side());
}

std::optional<HALDirection> DeviceArgument::side() const
{
    return _isInput    ? std::optional(HALDirection::Input)
           : _isOutput ? std::optional(HALDirection::Output)
                       : std::nullopt;
}
