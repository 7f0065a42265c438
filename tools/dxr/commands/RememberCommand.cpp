#include "Commands.h"

#include "DeviceArgument.h"
#include "DisplayText.h"
#include "Terminal.h"
#include "ToolFailure.h"

#include <iostream>

namespace {

struct Options {
    explicit Options(CLI::App& command) : device(command) {}
    DeviceArgument device;
    std::optional<std::string> key;
    std::optional<std::string> value;
};

/// JSON where it is some, else a text.
CXPlist valueFrom(const std::string& text)
{
    const CXPlist parsed = CXPlist::parse(text, nullptr, false);
    return parsed.is_discarded() ? CXPlist(text) : parsed;
}

void print(const DXRDevice& device)
{
    const Terminal terminal;
    for (const std::string& key : device.overrideKeys())
        std::cout << singleLine(key) << " = " << jsonText(device.overrideForKey(key), -1, terminal.isLive())
                  << "\n";
}

void remember(const Options& options)
{
    const CXRef<DXRDevice> device = options.device.find();
    if (!options.key)
        return print(*device);
    if (!options.value)
        throw CLI::ValidationError("remember", "needs a VALUE for the KEY");
    const CXPlist value = valueFrom(*options.value);
    device->setOverride(value, *options.key);
    if (device->overrideForKey(*options.key) != value)
        throw ToolFailure("this value cannot be remembered");
}

void forget(const Options& options)
{
    const CXRef<DXRDevice> device = options.device.find();
    if (options.key && device->overrideForKey(*options.key).is_null())
        throw ToolFailure("nothing is remembered under '" + singleLine(*options.key) + "'");
    for (const std::string& key : options.key ? std::vector{*options.key} : device->overrideKeys())
        device->setOverride(nullptr, key);
}

} // namespace

void registerRememberCommands(CLI::App& app)
{
    CLI::App* command = app.add_subcommand(
        "remember",
        "Keep a setting of a device for every application (hv and hm: has volume, has mute), or show them");
    const auto options = std::make_shared<Options>(*command);
    command->add_option("key", options->key, "Which setting; all are shown without one");
    command->add_option("value", options->value, "JSON, or any text");
    command->callback([options] { remember(*options); });

    command = app.add_subcommand("forget", "Remove what is remembered of a device");
    const auto forgotten = std::make_shared<Options>(*command);
    command->add_option("key", forgotten->key, "Which setting; all without one");
    command->callback([forgotten] { forget(*forgotten); });
}
