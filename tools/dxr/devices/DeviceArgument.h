#pragma once

#include "DeviceSelection.h"
#include "HardwareChoice.h"

/// The options of commands that use one device: the device, its input or output side, and the hardware.
class DeviceArgument : public HardwareChoice {
public:
    enum class Sides { Both, Choice };

    /// Adds "device" and the choice of hardware to `command`, and --input and --output for a choice of sides.
    explicit DeviceArgument(CLI::App& command, Sides sides = Sides::Choice) : HardwareChoice(command)
    {
        command
            .add_option("device", _device, "The device's UID, reference, a part of its name, or 'default'")
            ->required();
        if (sides == Sides::Both)
            return;
        CLI::Option* const input = command.add_flag("--input", _isInput, "Use the input side");
        command.add_flag("--output", _isOutput, "Use the output side; the default if the device has one")
            ->excludes(input);
    }

    DeviceReport report() const { return findDevice(_device, side()); }
    /// The device object of the chosen side; by default the output if the device has one. Throws ToolFailure.
    CXRef<DXRDevice> device() const { return report().device(side()); }
    /// The side that the user has chosen, also by a reference to one; null if none.
    std::optional<HALDirection> side() const
    {
        if (_isInput)
            return HALDirection::Input;
        return _isOutput ? HALDirection::Output : sideReferredTo(_device);
    }

private:
    std::string _device;
    bool _isInput = false, _isOutput = false;
};
