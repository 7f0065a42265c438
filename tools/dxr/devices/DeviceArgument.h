#pragma once

#include "DeviceReport.h"
#include "HardwareChoice.h"

/// The options of commands for one device: which one, on which hardware, and which side of it.
/// Threads: one.
class DeviceArgument : public HardwareChoice {
public:
    enum class Sides { Both, Choice };

    /// Adds "device" and the choice of hardware to `command`, and --input and --output for a choice of sides.
    explicit DeviceArgument(CLI::App& command, Sides sides = Sides::Choice);

    /// Finds the device. Throws ToolFailure.
    DeviceReport report() const;
    /// Of the chosen side, else the output side where there is one. Throws ToolFailure.
    CXRef<DXRDevice> device() const { return report().device(side()); }
    /// The side that the user has chosen.
    std::optional<HALDirection> side() const;

private:
    std::string _device;
    bool _isInput = false, _isOutput = false;
};
