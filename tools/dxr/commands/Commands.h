#pragma once

#include "HardwareChoice.h"
#include "Terminal.h"

#include <cfloat>
#include <iostream>

/// Adds a command to `parent`. Options are constructed from the command if they have such a constructor, else
/// by default. When the command is parsed, the hardware is selected and `run` is called with the options.
template <class Options>
std::pair<CLI::App&, Options&> addCommand(CLI::App& parent, const char* name, const char* about,
                                          void (*run)(Options&))
{
    CLI::App* const command = parent.add_subcommand(name, about);
    std::shared_ptr<Options> options;
    if constexpr (std::is_constructible_v<Options, CLI::App&>)
        options = std::make_shared<Options>(*command);
    else
        options = std::make_shared<Options>();
    command->callback([options, run] {
        if constexpr (std::is_base_of_v<HardwareChoice, Options>)
            options->apply();
        run(*options);
    });
    return {*command, *options};
}

/// Adds an argument or option that the user must give.
template <class Value>
CLI::Option* addRequired(CLI::App& command, const char* name, Value& value, const char* about)
{
    return command.add_option(name, value, about)->required();
}

/// Accepts numbers from `min` to `max`; `range` describes them to the user. Used instead of CLI11's checks,
/// which accept NaN and print the largest double with all its digits.
inline CLI::Validator numberFrom(double min, double max, std::string range = "")
{
    if (range.empty())
        range = formatText("%.15g to %.15g", min, max);
    const auto check = [=](const std::string& text) {
        double number = 0.0;
        const bool isNumber = CLI::detail::lexical_cast(text, number);
        return isNumber && number >= min && number <= max ? "" : "must be " + range;
    };
    return {check, range};
}
inline const CLI::Validator aboveZero = numberFrom(DBL_MIN, DBL_MAX, "above 0"); // and finite

// Each function adds the commands defined in the source file of the same name.

void registerListCommands(CLI::App& app); ///< list, watch
void registerInfoCommand(CLI::App& app);
void registerSetCommands(CLI::App& app);     ///< set, remember, forget
void registerArchiveCommands(CLI::App& app); ///< archive, show, ref; in InfoCommand.cpp
void registerLoopCommand(CLI::App& app);
void registerPlayCommand(CLI::App& app);
void registerRecordCommand(CLI::App& app);
void registerTraceCommand(CLI::App& app);
void registerMonitorCommand(CLI::App& app);
void registerDemoCommand(CLI::App& app);
void registerResampleCommand(CLI::App& app);
void registerPlotCommand(CLI::App& app); ///< plot response, plot drift
void registerPlotDriftCommand(CLI::App& plot);
void registerAggregateCommand(CLI::App& app);
/// manual, completion. They describe the commands of `app`, which must be registered first.
void registerPagesCommands(CLI::App& app);
