#include "Commands.h"

#include "DeviceArgument.h"
#include "DisplayText.h"
#include "Terminal.h"
#include "ToolFailure.h"

#include <iostream>

namespace {

struct Options : DeviceArgument {
    using DeviceArgument::DeviceArgument;
    std::optional<std::string> key, value;
};

/// Parses `text` as JSON; if it is not JSON, returns it as a string.
CXPlist valueFrom(const std::string& text)
{
    const CXPlist parsed = CXPlist::parse(text, nullptr, false);
    return parsed.is_discarded() ? CXPlist(text) : parsed;
}

void remember(Options& options)
{
    const CXRef<DXRDevice> device = options.device();
    const Terminal terminal;
    if (!options.key) {
        for (const std::string& key : device->overrideKeys())
            std::cout << singleLine(key) << " = "
                      << jsonText(device->overrideForKey(key), -1, terminal.isLive()) << "\n";
        return;
    }
    if (!options.value)
        throw CLI::ValidationError("remember", "needs a VALUE for the KEY");
    const CXPlist value = valueFrom(*options.value);
    device->setOverride(value, *options.key);
    if (device->overrideForKey(*options.key) != value)
        throw ToolFailure("this value cannot be stored");
}

void forget(Options& options)
{
    const CXRef<DXRDevice> device = options.device();
    if (options.key && device->overrideForKey(*options.key).is_null())
        throw ToolFailure("no setting '" + singleLine(*options.key) + "' is stored");
    for (const std::string& key : options.key ? std::vector{*options.key} : device->overrideKeys())
        device->setOverride(nullptr, key);
}

} // namespace

void registerRememberCommands(CLI::App& app)
{
    const auto [command, options] = addCommand(
        app, "remember",
        "Store a setting of a device for all applications (hv and hm: has volume, has mute), or show them",
        remember);
    command.add_option("key", options.key, "The setting to store; all are shown if not given");
    command.add_option("value", options.value, "The value: JSON, or any text");

    const auto [forgetCommand, forgetOptions] =
        addCommand(app, "forget", "Remove stored settings of a device", forget);
    forgetCommand.add_option("key", forgetOptions.key, "The setting to remove; all if not given");
}
