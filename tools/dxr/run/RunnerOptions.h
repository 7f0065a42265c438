#pragma once

#include "DeviceSelection.h"
#include "HardwareChoice.h"

#include <dxr/DXRConversionQuality.h>

/// The options of commands that run audio: devices, frame count, rate, duration.
class RunnerOptions : public HardwareChoice {
public:
    /// Adds --frames, --rate, --wait and the choice of hardware to `command`.
    explicit RunnerOptions(CLI::App& command);

    /// Sets the end of the command's help: `about`, and how devices are named.
    void setAbout(const std::string& about);
    /// Adds --in or --out, which take a DEVICE[:CHANNELS] and may be repeated.
    void addInputs(const std::string& about) { _addDevices("--in", _inputNames, about); }
    void addOutputs(const std::string& about) { _addDevices("--out", _outputNames, about); }
    void addSeconds(const std::string& about);
    /// After the devices' options: makes the default devices their default. Also adds --fast and --quiet.
    void useDefaults()
    {
        if (_command.get_option_no_throw("--in"))
            _inputNames = {"default"};
        if (_command.get_option_no_throw("--out"))
            _outputNames = {"default"};
        _command.add_flag("--fast", _isFast, "Convert rates with less delay and cost, and more noise");
        _command.add_flag("--quiet", _isQuiet, "Print nothing but errors");
    }

    /// Finds the devices; with --wait, waits until they are connected. Throws ToolFailure.
    void find();
    /// Replaces the devices by the current default devices.
    void takeDefaults();
    const std::vector<DeviceSelection>& inputs() const { return _inputs; }
    const std::vector<DeviceSelection>& outputs() const { return _outputs; }
    bool namesDevices() const { return !_inputNames.empty() || !_outputNames.empty(); }
    std::optional<uint32_t> frameCount() const { return _frames; }
    std::optional<double> sampleRate() const { return _rate; } ///< Hz
    std::optional<double> seconds() const { return _seconds; }
    DXRConversionQuality quality() const
    {
        return _isFast ? DXRConversionQuality::Standard : DXRConversionQuality::High;
    }

private:
    void _addDevices(const char* name, std::vector<std::string>& texts, const std::string& about)
    {
        _command.add_option(name, texts, about)->allow_extra_args(false)->type_name("DEVICE[:CHANNELS]");
    }
    void _select();
    void _waitForDevices();

    CLI::App& _command;
    std::vector<std::string> _inputNames, _outputNames;
    bool _isFast = false, _isQuiet = false, _waits = false;
    std::optional<uint32_t> _frames;
    std::optional<double> _rate, _seconds;
    std::vector<DeviceSelection> _inputs, _outputs;
};
