#pragma once

#include <CLI/CLI.hpp>
#include <dxr/simulated.h>

/// The `--simulated` flag that every command has.
/// Threads: one.
class HardwareChoice {
public:
    /// Adds the flag to `command`. This object must live as long as the command line is parsed and run.
    explicit HardwareChoice(CLI::App& command);

    /// Makes the chosen hardware the process's: the simulated computer, whose backend it answers, or the real
    /// one, for which it answers none. Call it once, before anything else touches a device.
    CXRef<SimulatedHardware> apply() const;

private:
    bool _isSimulated = false;
};
