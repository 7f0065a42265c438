#include "DeviceArgument.h"

#include "DeviceLookup.h"

DeviceArgument::DeviceArgument(CLI::App& command) : _hardware(command)
{
    command.add_option("device", _device, "Its UID, reference, or a part of its name")->required();
    CLI::Option* const input = command.add_flag("--input", _input, "The input side");
    command.add_flag("--output", _output, "The output side; taken where there is one")->excludes(input);
}

CXRef<DXRDevice> DeviceArgument::find() const
{
    _hardware.apply();
    std::optional<HALDirection> direction;
    if (_input || _output)
        direction = _input ? HALDirection::Input : HALDirection::Output;
    return DeviceLookup::find(_device, direction).device(direction);
}
