#include "Commands.h"

#include "DeviceLookup.h"
#include "DeviceSettings.h"
#include "DisplayText.h"
#include "HardwareChoice.h"
#include "TextFormat.h"
#include "ToolFailure.h"

#include <algorithm>
#include <cmath>
#include <iostream>

namespace {

struct Options {
    explicit Options(CLI::App& command) : hardware(command) {}
    HardwareChoice hardware;
    std::string device;
    std::string volume;
    std::optional<uint32_t> channel;
    std::string mute;
    std::optional<std::string> source;
    std::optional<double> rate;
    bool makeDefault = false;
    bool input = false;
    bool output = false;
};

struct Volume {
    float value = 0.0F;
    bool isRelative = false; ///< to be added to what there is
};

/// "0.5" or "50%" as 0.5; with a sign, as in "+5%", a change. Throws CLI::ValidationError for anything else.
Volume volumeFrom(const std::string& text)
{
    size_t used = 0;
    double value = NAN;
    try {
        value = std::stod(text, &used);
    } catch (const std::logic_error&) {
        used = 0;
    }
    const bool isPercent = used > 0 && text.substr(used) == "%";
    const bool isRelative = text.starts_with('+') || text.starts_with('-');
    if (isPercent)
        value /= 100.0;
    if (used == 0 || (!isPercent && used != text.size()) ||
        !(value >= (isRelative ? -1.0 : 0.0) && value <= 1.0))
        throw CLI::ValidationError("--volume", "must be 0 to 1, or 0% to 100%, or a change such as +5%");
    return {static_cast<float>(value), isRelative};
}

/// Makes the changes that one command line asks for on one device.
class Changes {
public:
    Changes(const Options& options, const DeviceReport& device)
        : _options(options), _device(device), _name(device.shortName())
    {
        const bool hasOutput = device[HALDirection::Output].channelCount > 0;
        const bool isInput = options.input || (!options.output && !hasOutput);
        _direction = isInput ? HALDirection::Input : HALDirection::Output;
        _report = device[_direction];
    }

    void make()
    {
        if (!_options.volume.empty())
            _setVolume(volumeFrom(_options.volume));
        if (!_options.mute.empty())
            _setMute(_options.mute == "toggle" ? !_report.isMuted.value_or(false) : _options.mute == "on");
        if (_options.source)
            _setSource(*_options.source);
        if (_options.rate)
            _setRate(*_options.rate);
        if (_options.makeDefault)
            _makeDefault();
    }

private:
    AudioObjectPropertyAddress _address(uint32_t selector, uint32_t element = 0) const
    {
        return addressOf(selector, _direction, element);
    }

    [[noreturn]] void _fail(const std::string& reason) const { throw ToolFailure(_name + ": " + reason); }

    void _done(const std::string& what) const { std::cout << _name << ": " << what << "\n"; }

    /// The elements that `--volume` moves: the channel asked for, else the main one, else every channel's.
    std::vector<uint32_t> _volumeElements() const
    {
        if (_options.channel)
            return {*_options.channel};
        if (_report.volume)
            return {0};
        std::vector<uint32_t> elements;
        for (uint32_t i = 0; i < _report.channelVolumes.size(); ++i)
            if (_report.channelVolumes[i])
                elements.push_back(i + 1);
        return elements;
    }

    float _volumeOf(uint32_t element) const
    {
        const bool isChannel = element > 0 && element <= _report.channelVolumes.size();
        return (isChannel ? _report.channelVolumes[element - 1] : _report.volume).value_or(0.0F);
    }

    void _setVolume(const Volume& wanted)
    {
        constexpr double tolerance = 0.01; // hardware has steps
        const std::vector<uint32_t> elements = _volumeElements();
        if (elements.empty())
            _fail(formatText("its %s has no volume control", nameOf(_direction)));
        float volume = wanted.value;
        for (const uint32_t element : elements) {
            if (wanted.isRelative)
                volume = std::clamp(_volumeOf(element) + wanted.value, 0.0F, 1.0F);
            setAndWait(_name, _device.deviceID, _address(kAudioDevicePropertyVolumeScalar, element), volume,
                       "volume", tolerance);
        }
        _done(formatText("%s volume %s", nameOf(_direction), formatPercent(double{volume}).c_str()) +
              (_options.channel ? formatText(" on channel %u", *_options.channel) : ""));
    }

    void _setMute(bool isMuted)
    {
        const uint32_t element = _options.channel.value_or(0);
        setAndWait<uint32_t>(_name, _device.deviceID, _address(kAudioDevicePropertyMute, element),
                             isMuted ? 1 : 0, "mute");
        _done(formatText("%s mute %s", nameOf(_direction), isMuted ? "on" : "off"));
    }

    void _setSource(const std::string& wanted)
    {
        const DirectionReport::Source* found = nullptr;
        std::string known;
        for (const DirectionReport::Source& source : _report.sources) {
            known += (known.empty() ? "" : ", ") + singleLine(source.name);
            const bool isExact = source.name == wanted || std::to_string(source.sourceID) == wanted;
            if (isExact || (!found && foldCase(source.name) == foldCase(wanted)))
                found = &source;
        }
        if (!found)
            _fail(known.empty() ? formatText("its %s has no sources", nameOf(_direction))
                                : formatText("no source '%s'; there is: %s", singleLine(wanted).c_str(),
                                             clipToWidth(known, 200).c_str()));
        setAndWait(_name, _device.deviceID, _address(kAudioDevicePropertyDataSource), found->sourceID,
                   "source");
        _done(
            formatText("%s source %s", nameOf(_direction), clipToWidth(singleLine(found->name), 40).c_str()));
    }

    void _setRate(double rate)
    {
        setSampleRate(_name, _device.deviceID, rate);
        _done("sample rate " + formatRate(rate));
    }

    void _makeDefault()
    {
        if (_report.channelCount == 0)
            _fail(formatText("it has no %s channels", nameOf(_direction)));
        const uint32_t selector = _direction == HALDirection::Input
                                      ? kAudioHardwarePropertyDefaultInputDevice
                                      : kAudioHardwarePropertyDefaultOutputDevice;
        setAndWait(_name, kAudioObjectSystemObject, addressOf(selector), _device.deviceID, "default device");
        _done(formatText("default %s", nameOf(_direction)));
    }

    const Options& _options;
    const DeviceReport& _device;
    const std::string _name;
    HALDirection _direction = HALDirection::Output;
    DirectionReport _report;
};

void run(const Options& options)
{
    if (options.volume.empty() && options.mute.empty() && !options.source && !options.rate &&
        !options.makeDefault)
        throw CLI::ValidationError("set", "needs one of --volume, --mute, --source, --rate, --default");
    if (options.channel && options.volume.empty() && options.mute.empty())
        throw CLI::ValidationError("--channel", "goes with --volume or --mute");
    if (!options.volume.empty())
        volumeFrom(options.volume); // wrong usage is reported before a device is touched
    options.hardware.apply();
    std::optional<HALDirection> direction;
    if (options.input || options.output)
        direction = options.input ? HALDirection::Input : HALDirection::Output;
    const DeviceReport device = DeviceLookup::find(options.device, direction);
    Changes(options, device).make();
}

} // namespace

void registerSetCommand(CLI::App& app)
{
    CLI::App* command = app.add_subcommand("set", "Change a device's volume, mute, source or rate");
    const auto options = std::make_shared<Options>(*command);
    command->add_option("device", options->device, "Its UID, reference, or a part of its name")->required();
    command->add_option("--volume", options->volume, "0 to 1, or 0% to 100%; +5% and -5% change it");
    command->add_option("--channel", options->channel, "Only this channel, from 1")
        ->check(CLI::PositiveNumber);
    command->add_option("--mute", options->mute, "on, off or toggle")
        ->check(CLI::IsMember({"on", "off", "toggle"}));
    command->add_option("--source", options->source, "A data source, by its name or ID");
    command->add_option("--rate", options->rate, "The sample rate in Hz")->check(CLI::PositiveNumber);
    command->add_flag("--default", options->makeDefault, "Make it the default device");
    CLI::Option* input = command->add_flag("--input", options->input, "The input side");
    command->add_flag("--output", options->output, "The output side; taken where there is one")
        ->excludes(input);
    command->callback([options] { run(*options); });
}
