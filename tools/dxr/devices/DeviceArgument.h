#pragma once

#include "DeviceReport.h"
#include "HardwareChoice.h"

/// The DEVICE of a command and which side of it is meant: what commands have that work on one device object.
/// Threads: one.
class DeviceArgument {
public:
    /// Adds "device", "--input", "--output" and the choice of hardware to `command`. This object must live as long as
    /// the command line is parsed and run.
    explicit DeviceArgument(CLI::App& command);

    /// The device object; the output side where both are there and neither was asked for. Throws ToolFailure.
    CXRef<DXRDevice> find() const;

private:
    HardwareChoice _hardware;
    std::string _device;
    bool _input = false;
    bool _output = false;
};
