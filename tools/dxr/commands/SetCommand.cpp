#include "Commands.h"

#include "DeviceArgument.h"
#include "DeviceProperties.h"

#include <algorithm>
#include <dxr/CXJSON.h>
#include <dxr/DXRDeviceOverrides.h>

namespace {

struct Options : DeviceArgument {
    using DeviceArgument::DeviceArgument;
    std::string volume, mute;
    std::optional<uint32_t> channel;
    std::optional<std::string> source;
    std::optional<double> rate;
    bool makesDefault = false;
};

struct Volume {
    float value = 0.0F;
    bool isRelative = false; ///< whether the value is added to the current volume
};

/// Parses "0.5" or "50%", or with a sign a change such as "+5%". Throws CLI::ValidationError for other texts.
Volume volumeFrom(const std::string& text)
{
    std::string number = text;
    const bool isPercent = number.ends_with('%');
    const bool isRelative = number.starts_with('+') || number.starts_with('-');
    if (isPercent)
        number.pop_back();
    double value = 0.0;
    const bool isNumber = CLI::detail::lexical_cast(number, value);
    value /= isPercent ? 100.0 : 1.0;
    if (!isNumber || !(value >= (isRelative ? -1.0 : 0.0) && value <= 1.0))
        throw CLI::ValidationError("--volume", "must be 0 to 1, or 0% to 100%, or a change such as +5%");
    return {static_cast<float>(value), isRelative};
}

class Changes {
public:
    Changes(const Options& options, const DeviceReport& device)
        : _options(options), _device(device), _name(device.shortName()),
          _direction(device.direction(options.side())), _scope(scopeOf(_direction)),
          _report(device[_direction])
    {}

    void make() const
    {
        if (_options.channel.value_or(0) > _report.channelCount)
            _fail("has " + formatCount(_report.channelCount, std::string(nameOf(_direction)) + " channel") +
                  formatText(", not %u", *_options.channel));
        if (!_options.volume.empty())
            _setVolume(volumeFrom(_options.volume));
        if (!_options.mute.empty())
            _setMute(_options.mute == "toggle" ? !_report.isMuted.value_or(false) : _options.mute == "on");
        if (_options.source)
            _setSource(*_options.source);
        if (_options.rate) {
            setSampleRate(_name, _device.deviceID, *_options.rate);
            _print("sample rate " + formatRate(*_options.rate) + ", until this command ends");
        }
        if (_options.makesDefault)
            _makeDefault();
    }

private:
    [[noreturn]] void _fail(const std::string& reason) const { throw ToolFailure(_name + ": " + reason); }
    void _print(const std::string& what) const { std::cout << _name << ": " << what << "\n"; }

    /// The channel given by the user, else the main element, else every channel with a volume control.
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

    void _setVolume(const Volume& wanted) const
    {
        constexpr double tolerance = 0.01; // hardware rounds volumes to its steps
        const std::vector<uint32_t> elements = _volumeElements();
        if (elements.empty())
            _fail(formatText("the %s has no volume control", nameOf(_direction)));
        float volume = wanted.value;
        for (const uint32_t element : elements) {
            if (wanted.isRelative)
                volume = std::clamp(_volumeOf(element) + wanted.value, 0.0F, 1.0F);
            setAndWait(_name, _device.deviceID, DXRPropertyAddress::deviceVolumeScalar(_scope, element),
                       volume, "volume", tolerance);
        }
        _print(formatText("%s volume %s", nameOf(_direction), formatPercent(double{volume}).c_str()) +
               (_options.channel ? formatText(" on channel %u", *_options.channel) : ""));
    }

    void _setMute(bool isMuted) const
    {
        const auto property = DXRPropertyAddress::deviceMute(_scope, _options.channel.value_or(0));
        setAndWait<uint32_t>(_name, _device.deviceID, property, isMuted ? 1 : 0, "mute");
        _print(formatText("%s mute %s", nameOf(_direction), isMuted ? "on" : "off"));
    }

    void _setSource(const std::string& wanted) const
    {
        using Source = DirectionReport::Source;
        const auto isExact = [&](const Source& source) {
            return source.name == wanted || std::to_string(source.sourceID) == wanted;
        };
        auto found = std::ranges::find_if(_report.sources, isExact);
        if (found == _report.sources.end())
            found = std::ranges::find(_report.sources, foldCase(wanted),
                                      [](const Source& source) { return foldCase(source.name); });
        if (_report.sources.empty())
            _fail(formatText("the %s has no sources", nameOf(_direction)));
        if (found == _report.sources.end())
            _fail("no source '" + singleLine(wanted) +
                  "'; available: " + shortText(joined(_report.sources, ", ", &Source::name), 200));
        setAndWait(_name, _device.deviceID, DXRPropertyAddress::deviceDataSource(_scope), found->sourceID,
                   "source");
        _print(std::string(nameOf(_direction)) + " source " + shortText(found->name, 40));
    }

    void _makeDefault() const
    {
        if (_report.channelCount == 0)
            _fail(formatText("the device has no %s channels", nameOf(_direction)));
        const auto property = _direction == HALDirection::Input
                                  ? DXRPropertyAddress::hardwareDefaultInputDevice()
                                  : DXRPropertyAddress::hardwareDefaultOutputDevice();
        setAndWait(_name, kAudioObjectSystemObject, property, _device.deviceID, "default device");
        _print(formatText("default %s", nameOf(_direction)));
    }

    const Options& _options;
    const DeviceReport& _device;
    const std::string _name;
    const HALDirection _direction;
    const uint32_t _scope;
    const DirectionReport& _report;
};

void set(Options& options)
{
    if (options.volume.empty() && options.mute.empty() && !options.source && !options.rate &&
        !options.makesDefault)
        throw CLI::ValidationError("set", "needs one of --volume, --mute, --source, --rate, --default");
    if (options.channel && options.volume.empty() && options.mute.empty())
        throw CLI::ValidationError("--channel", "needs --volume or --mute");
    if (!options.volume.empty())
        volumeFrom(options.volume); // reports wrong usage before a device is changed
    const DeviceReport device = options.report();
    Changes(options, device).make();
}

// ---- remember, forget

/// Fails if the settings cannot be read: then none can be seen, or removed.
void requireSettings()
{
    if (!DXRDeviceOverrides::synchronize())
        throw ToolFailure("the settings cannot be read or stored");
}

struct SettingOptions : DeviceArgument {
    using DeviceArgument::DeviceArgument;
    std::optional<std::string> key, value;
};

void remember(SettingOptions& options)
{
    const CXRef<DXRDevice> device = options.device();
    const Terminal terminal;
    if (!options.key) {
        requireSettings();
        for (const std::string& key : device->overrideKeys())
            std::cout << singleLine(key) << " = "
                      << jsonText(device->overrideForKey(key), -1, terminal.isLive()) << "\n";
        return;
    }
    if (!options.value)
        throw CLI::ValidationError("remember", "needs a VALUE for the KEY");
    const std::optional<CXPlist> parsed = CXPlistWithJSON(*options.value);
    const bool isTooDeep = !parsed && CXPlist::accept(*options.value);
    if (isTooDeep || !device->setOverride(parsed ? *parsed : CXPlist(*options.value), *options.key))
        throw ToolFailure("this value cannot be stored");
    requireSettings();
}

void forget(SettingOptions& options)
{
    const CXRef<DXRDevice> device = options.device();
    requireSettings();
    if (options.key && device->overrideForKey(*options.key).is_null())
        throw ToolFailure("no setting '" + singleLine(*options.key) + "' is stored");
    for (const std::string& key : options.key ? std::vector{*options.key} : device->overrideKeys())
        device->setOverride(nullptr, key);
    requireSettings();
}

} // namespace

void registerSetCommands(CLI::App& app)
{
    const auto [command, options] =
        addCommand(app, "set", "Change a device's volume, mute, source or rate", set);
    command.add_option("--volume", options.volume, "0 to 1, or 0% to 100%; +5% and -5% change it");
    command.add_option("--channel", options.channel, "Only this channel, counted from 1")->check(aboveZero);
    command.add_option("--mute", options.mute, "on, off or toggle")
        ->check(CLI::IsMember({"on", "off", "toggle"}));
    command.add_option("--source", options.source, "A data source, by its name or ID");
    command.add_option("--rate", options.rate, "Hz, until the command ends")->check(aboveZero);
    command.add_flag("--default", options.makesDefault, "Make it the default device");

    const auto [rememberCommand, rememberOptions] = addCommand(
        app, "remember",
        "Store a setting of a device for all applications (hv and hm: has volume, has mute), or show them",
        remember);
    rememberCommand.add_option("key", rememberOptions.key,
                               "The setting to store; all are shown if not given");
    rememberCommand.add_option("value", rememberOptions.value, "The value: JSON, or any text");

    const auto [forgetCommand, forgetOptions] =
        addCommand(app, "forget", "Remove stored settings of a device", forget);
    forgetCommand.add_option("key", forgetOptions.key, "The setting to remove; all if not given");
}
