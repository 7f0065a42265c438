#pragma once

#include "SimulatedVisitor.h"

#include <CLI/CLI.hpp>

/// The options `--simulated` and `--hardware`: the base of the options of every command that uses devices.
/// Threads: one.
class HardwareChoice {
public:
    /// Adds the options to `command`, which calls apply() before it runs. This object must outlive the
    /// command line.
    explicit HardwareChoice(CLI::App& command);

    /// Selects the process's hardware. Call it once, before any other use of devices. Throws ToolFailure for
    /// an unknown driver.
    void apply();
    /// On simulated hardware: changes to its devices, for as long as the result lives. Null on real hardware.
    std::unique_ptr<SimulatedVisitor>
    visitor(std::chrono::milliseconds pause = SimulatedVisitor::usualPause) const;

private:
    bool _isSimulated = false;
    std::string _driver;
    CXRef<SimulatedHardware> _simulated; // null before apply(), and on real hardware
};
