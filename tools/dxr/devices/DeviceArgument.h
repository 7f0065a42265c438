#pragma once

#include "DeviceReport.h"
#include "HardwareChoice.h"

/// The options of commands that use one device: the device, the hardware, and the device's input or output
/// side.
/// Threads: one at a time.
class DeviceArgument : public HardwareChoice {
public:
    enum class Sides { Both, Choice };

    /// Adds "device" and the choice of hardware to `command`, and --input and --output for a choice of sides.
    explicit DeviceArgument(CLI::App& command, Sides sides = Sides::Choice);

    /// Finds the device. Throws ToolFailure.
    DeviceReport report() const;
    /// The device object of the chosen side; by default the output if the device has one. Throws ToolFailure.
    CXRef<DXRDevice> device() const { return report().device(side()); }
    /// The side that the user has chosen; null if none.
    std::optional<HALDirection> side() const;

private:
    std::string _device;
    bool _isInput = false, _isOutput = false;
};
