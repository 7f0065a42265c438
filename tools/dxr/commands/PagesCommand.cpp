#include "Commands.h"

#include "DeviceReport.h"
#include "DisplayText.h"
#include "HardwareChoice.h"
#include "ToolFailure.h"

#include <algorithm>
#include <dxr/DXRVersion.h>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iostream>

namespace {

std::vector<const CLI::App*> commandsOf(const CLI::App& app)
{
    return app.get_subcommands([](const CLI::App* command) {
        return !command->get_group().empty() && !command->get_name().empty();
    });
}

std::vector<const CLI::Option*> optionsOf(const CLI::App& command)
{
    return command.get_options([](const CLI::Option* option) { return !option->get_group().empty(); });
}

/// "--in DEVICE", "-h, --help", or the name of what stands by itself.
std::string usageOf(const CLI::Option& option)
{
    if (option.get_positional())
        return option.get_name(true);
    std::string names = option.get_name(false, true);
    for (size_t comma = 0; (comma = names.find(',', comma)) != std::string::npos; comma += 2)
        names.insert(comma + 1, " ");
    const bool takesValue = option.get_items_expected_max() > 0;
    return takesValue
               ? names + " " + foldCase(option.get_type_name().substr(0, option.get_type_name().find('{')))
               : names;
}

// ---- Man pages

std::string roff(const std::string& text)
{
    std::string escaped;
    for (const char c : text) {
        if (c == '\\' || c == '-')
            escaped += '\\';
        if ((c == '.' || c == '\'') && (escaped.empty() || escaped.back() == '\n'))
            escaped += "\\&";
        escaped += c;
    }
    return escaped;
}

void writeOptions(std::ostream& page, const CLI::App& command)
{
    for (const CLI::Option* option : optionsOf(command))
        page << ".TP\n.B " << roff(usageOf(*option)) << "\n" << roff(option->get_description()) << "\n";
}

void writePage(std::ostream& page, const std::string& name, const CLI::App& command)
{
    std::string title = name;
    std::ranges::transform(title, title.begin(), [](char c) { return static_cast<char>(std::toupper(c)); });
    page << ".TH " << roff(title) << " 1 \"\" \"dxr " << DXRVersionString()
         << "\" \"User Commands\"\n.SH NAME\n"
         << roff(name) << " \\- " << roff(command.get_description()) << "\n.SH SYNOPSIS\n.B "
         << (command.get_parent() ? "dxr " + command.get_name() : "dxr") << "\n";
    for (const CLI::Option* option : optionsOf(command))
        if (option->get_positional())
            page << (option->get_required() ? "" : "[") << "\\fI" << roff(option->get_name(true)) << "\\fR"
                 << (option->get_required() ? "\n" : "]\n");
    page << "[\\fIoptions\\fR]\n";
    if (!command.get_footer().empty())
        page << ".SH DESCRIPTION\n" << roff(command.get_footer()) << "\n";
    page << ".SH OPTIONS\n";
    writeOptions(page, command);
    const auto commands = commandsOf(command);
    if (!commands.empty())
        page << ".SH COMMANDS\n";
    for (const CLI::App* each : commands)
        page << ".TP\n.BR " << (command.get_parent() ? "" : "dxr\\-") << roff(each->get_name())
             << (command.get_parent() ? "" : " (1)") << "\n"
             << roff(each->get_description()) << "\n";
    if (command.get_parent())
        for (const CLI::App* each : commands) {
            page << ".SS " << roff(command.get_name() + " " + each->get_name()) << "\n";
            writeOptions(page, *each);
        }
    page << ".SH EXIT STATUS\n0 when all went well, 1 when something failed while it ran, 2 when the command "
            "line made no "
            "sense.\n.SH SEE ALSO\n.BR "
         << (command.get_parent() ? "dxr (1)" : "pipewire (1)") << "\n";
}

void writeManual(const CLI::App& app, const std::string& folder)
{
    const auto write = [&](const std::string& name, const CLI::App& command) {
        std::ofstream page(std::filesystem::path(folder) / (name + ".1"));
        writePage(page, name, command);
        if (!page.flush())
            throw ToolFailure(singleLine(folder) + ": cannot be written");
    };
    std::error_code ignored;
    std::filesystem::create_directories(folder, ignored);
    write("dxr", app);
    for (const CLI::App* command : commandsOf(app))
        write("dxr-" + command->get_name(), *command);
}

// ---- Completions

std::string wordsOf(const CLI::App& command)
{
    std::string words;
    for (const CLI::App* each : commandsOf(command))
        words += (words.empty() ? "" : " ") + each->get_name();
    for (const CLI::Option* option : optionsOf(command))
        for (const std::string& name : option->get_lnames())
            words += (words.empty() ? "--" : " --") + name;
    return words;
}

bool takesDevice(const CLI::App& command)
{
    return command.get_option_no_throw("device") != nullptr;
}

/// What bash and zsh, which has bash's way, too, complete with.
void writeBash(const CLI::App& app)
{
    std::cout << "_dxr() {\n"
                 "    local word=${COMP_WORDS[COMP_CWORD]} before=${COMP_WORDS[COMP_CWORD-1]} words device=\n"
                 "    case ${COMP_WORDS[1]} in\n";
    for (const CLI::App* command : commandsOf(app))
        std::cout << "    " << command->get_name() << ") words='" << wordsOf(*command) << "'"
                  << (takesDevice(*command) ? " device=yes" : "") << ";;\n";
    std::cout
        << "    esac\n"
           "    [ \"$COMP_CWORD\" -eq 1 ] && words='"
        << wordsOf(app)
        << "' device=\n"
           "    case $before in --in|--out) device=yes words=;; esac\n"
           "    COMPREPLY=()\n"
           "    [ -n \"$device\" ] && words=\"$words $(dxr completion devices 2>/dev/null | cut -f1)\"\n"
           "    while IFS= read -r each; do COMPREPLY+=(\"$each\"); done < <(compgen -W \"$words\" -- "
           "\"$word\")\n"
           "}\n"
           "complete -o default -F _dxr dxr\n";
}

std::string fishText(const std::string& text)
{
    std::string quoted = "'";
    for (const char c : text)
        quoted += c == '\'' || c == '\\' ? std::string("\\") + c : std::string(1, c);
    return quoted + "'";
}

void writeFish(const CLI::App& app)
{
    for (const CLI::App* command : commandsOf(app)) {
        const std::string inCommand =
            "complete -c dxr -n '__fish_seen_subcommand_from " + command->get_name() + "'";
        std::cout << "complete -c dxr -n __fish_use_subcommand -f -a " << command->get_name() << " -d "
                  << fishText(command->get_description()) << "\n";
        if (takesDevice(*command))
            std::cout << inCommand << " -f -a '(dxr completion devices)'\n";
        for (const CLI::Option* option : optionsOf(*command))
            for (const std::string& name : option->get_lnames())
                std::cout << inCommand << " -l " << name << " -d " << fishText(option->get_description())
                          << (name == "in" || name == "out"          ? " -x -a '(dxr completion devices)'"
                              : option->get_items_expected_max() > 0 ? " -r"
                                                                     : "")
                          << "\n";
    }
}

void writeCompletion(const CLI::App& app, const std::string& what)
{
    if (what == "devices") {
        for (const DeviceReport& device : DeviceReport::readAll(DeviceReport::Hidden::No))
            std::cout << singleLine(device.uid) << "\t" << singleLine(device.displayName()) << "\n";
    } else if (what == "fish") {
        writeFish(app);
    } else {
        if (what == "zsh")
            std::cout << "#compdef dxr\nautoload -U +X bashcompinit && bashcompinit\n";
        writeBash(app);
    }
}

} // namespace

void registerPagesCommands(CLI::App& app)
{
    const auto folder = std::make_shared<std::string>(), what = std::make_shared<std::string>();
    CLI::App* manual = app.add_subcommand("manual", "Write the man pages of all commands");
    manual->add_option("folder", *folder, "Where dxr.1, dxr-list.1 and the others go")->required();
    manual->callback([&app, folder] { writeManual(app, *folder); });

    CLI::App* completion = app.add_subcommand("completion", "Print what makes a shell complete the commands");
    const auto hardware = std::make_shared<HardwareChoice>(*completion);
    completion
        ->add_option("shell", *what, "bash, zsh or fish; devices for the UIDs and names that they ask for")
        ->required()
        ->check(CLI::IsMember({"bash", "zsh", "fish", "devices"}));
    completion->callback([&app, what, hardware] {
        hardware->apply();
        writeCompletion(app, *what);
    });
}
