#pragma once

#include "DeviceSelection.h"
#include "HardwareChoice.h"

#include <dxr/DXRConversionQuality.h>

/// The options of the commands that run audio on devices: which, at what frame count and rate, and for how long.
/// Threads: one.
class RunnerOptions {
public:
    /// Adds --frames, --rate, --wait and the choice of hardware to `command`, whose help ends with what it is `about`. This
    /// object must live as long as the command line is parsed and run.
    RunnerOptions(CLI::App& command, const std::string& about);

    /// Adds --in, or --out, which can be given several times, each with a DEVICE[:CHANNELS]. `what` says what for.
    CLI::Option* addInputs(const std::string& what) { return _addDevices("--in", _inputs, what); }
    CLI::Option* addOutputs(const std::string& what) { return _addDevices("--out", _outputs, what); }
    CLI::Option* addSeconds(const std::string& what);
    /// Where a direction that was added has no device, find() takes the default one; also adds --fast and --quiet.
    void useDefaults();

    /// Makes the chosen hardware the process's, and finds the devices that were named; with --wait, as soon as they are
    /// connected. Returns the simulated computer's hardware, or null. Throws ToolFailure.
    CXRef<SimulatedHardware> find();
    /// Takes the default input and output, as far as there are, where nothing was named.
    void takeDefaults();
    const std::vector<DeviceSelection>& inputs() const { return _foundInputs; }
    const std::vector<DeviceSelection>& outputs() const { return _foundOutputs; }
    bool namesDevices() const { return !_inputs.empty() || !_outputs.empty(); }
    std::optional<uint32_t> frameCount() const { return _frames; }
    std::optional<double> sampleRate() const { return _rate; } ///< Hz
    std::optional<double> seconds() const { return _seconds; }
    DXRConversionQuality quality() const
    {
        return _isFast ? DXRConversionQuality::Standard : DXRConversionQuality::High;
    }

private:
    CLI::Option* _addDevices(const char* name, std::vector<std::string>& texts, const std::string& what);

    void _select();
    void _waitForDevices(const CXRef<SimulatedHardware>& simulated);
    void _takeDefault(HALDirection direction, std::vector<DeviceSelection>& found) const;

    CLI::App& _command;
    HardwareChoice _hardware;
    std::vector<std::string> _inputs, _outputs;
    bool _usesDefaults = false, _isFast = false, _isQuiet = false, _waits = false;
    std::optional<uint32_t> _frames;
    std::optional<double> _rate, _seconds;
    std::vector<DeviceSelection> _foundInputs, _foundOutputs;
};

/// "One + Another": the devices' names, printable.
std::string namesOf(const std::vector<DeviceSelection>& selections);
