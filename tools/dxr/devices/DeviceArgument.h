#pragma once

#include "DeviceReport.h"
#include "HardwareChoice.h"

/// The options of commands for one device: which one, on which hardware, and which side of it.
/// Threads: one.
class DeviceArgument {
public:
    enum class Sides { Both, Choice };

    /// Adds "device" and the choice of hardware to `command`, and --input and --output for a choice of sides.
    /// This object must outlive the command line.
    explicit DeviceArgument(CLI::App& command, Sides sides = Sides::Choice);

    /// Selects the hardware and finds the device. Throws ToolFailure.
    DeviceReport report();
    /// Of the chosen side, else the output side where there is one. Throws ToolFailure.
    CXRef<DXRDevice> device() { return report().device(side()); }
    /// The side that the user has chosen.
    std::optional<HALDirection> side() const;

private:
    HardwareChoice _hardware;
    std::string _device;
    bool _isInput = false, _isOutput = false;
};
