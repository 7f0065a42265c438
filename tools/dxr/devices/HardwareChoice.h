#pragma once

#include <CLI/CLI.hpp>
#include <dxr/simulated.h>
#include <string>

/// The options that every command has: `--simulated` and `--hardware`.
/// Threads: one.
class HardwareChoice {
public:
    /// Adds the options to `command`. This object must live as long as the command line is parsed and run.
    explicit HardwareChoice(CLI::App& command);

    /// Makes the chosen hardware the process's. Returns the simulated computer, or null for real hardware. Call it once,
    /// before anything else touches a device. Throws ToolFailure for a driver that is not there.
    CXRef<SimulatedHardware> apply() const;

private:
    bool _isSimulated = false;
    std::string _driver;
};
