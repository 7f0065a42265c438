#pragma once

#include <CLI/CLI.hpp>
#include <chrono>
#include <dxr/simulated.h>
#include <thread>

/// The options `--simulated` and `--hardware`; base class of the options of every command that uses devices.
class HardwareChoice {
public:
    /// Adds the options to `command`. This object must live until the command line has been parsed.
    explicit HardwareChoice(CLI::App& command);

    /// Selects the process's hardware, before any other use of devices; throws CLI::ValidationError. See addCommand().
    void apply();
    /// Starts a thread that changes a device of the simulated computer after every `pause`: connects and
    /// disconnects headphones, renames a microphone, sets volumes and sources. No thread on real hardware.
    std::jthread visitor(std::chrono::milliseconds pause = std::chrono::milliseconds(400)) const;

private:
    bool _isSimulated = false;
    std::string _driver;
    CXRef<SimulatedHardware> _simulated; // null before apply(), and on real hardware
};
