#pragma once

#include "SimulatedVisitor.h"

#include <CLI/CLI.hpp>

/// The options `--simulated` and `--hardware`; base class of the options of every command that uses devices.
/// Threads: one at a time.
class HardwareChoice {
public:
    /// Adds the options to `command`; see addCommand() for the call of apply(). This object must live until
    /// the command line has been parsed.
    explicit HardwareChoice(CLI::App& command);

    /// Selects the process's hardware. Call it once, before any other use of devices. Throws ToolFailure for
    /// an unknown driver.
    void apply();
    /// Starts changing devices of the simulated hardware, for as long as the result lives. Returns null on
    /// real hardware.
    std::unique_ptr<SimulatedVisitor>
    visitor(std::chrono::milliseconds pause = SimulatedVisitor::usualPause) const;

private:
    bool _isSimulated = false;
    std::string _driver;
    CXRef<SimulatedHardware> _simulated; // null before apply(), and on real hardware
};
