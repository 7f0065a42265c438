#include "Commands.h"

#include "DeviceReport.h"

#include <algorithm>
#include <dxr/CXStringAdditions.h>
#include <dxr/DXRVersion.h>
#include <filesystem>
#include <fstream>
#include <sstream>

namespace {

/// How an option is written: "--in DEVICE", "-h, --help", or the name of an argument.
std::string usageOf(const CLI::Option& option)
{
    if (option.get_positional())
        return option.get_name(true);
    std::string names = option.get_name(false, true);
    simpleReplace(names, ",", ", ");
    if (option.get_items_expected_max() > 0) // it takes a value
        names += " " + foldCase(option.get_type_name().substr(0, option.get_type_name().find('{')));
    return names;
}

// ---- Man pages

std::string roff(const std::string& text)
{
    std::string escaped = "\n" + text;
    for (const auto& [plain, safe] :
         {std::pair("\\", "\\\\"), {"-", "\\-"}, {"\n.", "\n\\&."}, {"\n'", "\n\\&'"}}) // backslash first
        simpleReplace(escaped, plain, safe);
    return escaped.substr(1);
}

void writeOptions(std::ostream& page, const CLI::App& command)
{
    for (const CLI::Option* option : command.get_options())
        page << ".TP\n.B " << roff(usageOf(*option)) << "\n" << roff(option->get_description()) << "\n";
}

void writePage(const std::string& folder, const std::string& name, const CLI::App& command)
{
    std::ofstream page(std::filesystem::path(folder) / (name + ".1"));
    const bool isWhole = command.get_parent() == nullptr; // the page of dxr itself
    std::string title = name;
    std::ranges::transform(title, title.begin(), [](char c) { return static_cast<char>(std::toupper(c)); });
    page << ".TH " << roff(title) << " 1 \"\" \"dxr " << DXRVersionString()
         << "\" \"User Commands\"\n.SH NAME\n"
         << roff(name) << " \\- " << roff(command.get_description()) << "\n.SH SYNOPSIS\n.B "
         << (isWhole ? "dxr" : "dxr " + command.get_name()) << "\n";
    for (const CLI::Option* option : command.get_options())
        if (option->get_positional())
            page << (option->get_required() ? "" : "[") << "\\fI" << roff(option->get_name(true)) << "\\fR"
                 << (option->get_required() ? "\n" : "]\n");
    page << "[\\fIoptions\\fR]\n";
    if (!command.get_footer().empty())
        page << ".SH DESCRIPTION\n" << roff(command.get_footer()) << "\n";
    page << ".SH OPTIONS\n";
    writeOptions(page, command);
    const std::vector<const CLI::App*> commands = command.get_subcommands(nullptr);
    if (!commands.empty())
        page << ".SH COMMANDS\n";
    for (const CLI::App* each : commands)
        page << ".TP\n.BR " << (isWhole ? "dxr\\-" : "") << roff(each->get_name()) << (isWhole ? " (1)" : "")
             << "\n"
             << roff(each->get_description()) << "\n";
    for (const CLI::App* each : isWhole ? std::vector<const CLI::App*>() : commands) {
        page << ".SS " << roff(command.get_name() + " " + each->get_name()) << "\n";
        writeOptions(page, *each);
    }
    page << ".SH EXIT STATUS\n0 for success, 1 when something failed, 2 for a wrong command line.\n"
            ".SH SEE ALSO\n.BR "
         << (isWhole ? "pipewire (1)" : "dxr (1)") << std::endl;
    if (!page)
        throw ToolFailure(singleLine(folder) + ": cannot be written");
}

// ---- Completions

constexpr const char* bashCompletion =
    R"(_dxr() {
    local each words=$(dxr completion words "${COMP_WORDS[*]:0:COMP_CWORD}" 2>/dev/null | cut -f1)
    COMPREPLY=()
    while IFS= read -r each; do COMPREPLY+=("$each"); done < <(compgen -W "$words" -- "${COMP_WORDS[COMP_CWORD]}")
}
complete -o default -F _dxr dxr
)";
constexpr const char* zshCompletion = R"(#compdef dxr
autoload -U +X bashcompinit && bashcompinit
)"; // followed by bashCompletion
constexpr const char* fishCompletion =
    R"fish(complete -c dxr -n __fish_use_subcommand -f
complete -c dxr -n 'string match -qr -- "^--(in|out)$" (commandline -opc)[-1]' -f
complete -c dxr -a '(dxr completion words (commandline -opc | string join " ") 2>/dev/null)'
)fish";

/// Prints the words that may follow those of `line`, each with its description.
void printWords(const CLI::App& app, const std::string& line)
{
    const CLI::App* command = &app;
    std::istringstream words(line);
    std::string word;
    while (words >> word)
        for (const CLI::App* inner : command->get_subcommands(nullptr))
            command = inner->get_name() == word ? inner : command;
    const bool isDevice = word == "--in" || word == "--out";
    if (isDevice || command->get_option_no_throw("device"))
        for (const DeviceReport& device : DeviceReport::readAll(DeviceReport::Hidden::No))
            std::cout << singleLine(device.uid) << "\t" << singleLine(device.displayName()) << "\n";
    if (isDevice)
        return;
    for (const CLI::App* each : command->get_subcommands(nullptr))
        std::cout << each->get_name() << "\t" << each->get_description() << "\n";
    for (const CLI::Option* option : command->get_options())
        for (const std::string& name : option->get_lnames())
            std::cout << "--" << name << "\t" << option->get_description() << "\n";
}

struct CompletionOptions : HardwareChoice {
    explicit CompletionOptions(CLI::App& command) : HardwareChoice(command), app(*command.get_parent()) {}
    const CLI::App& app;
    std::string what, line;
};

void complete(CompletionOptions& options)
{
    if (options.what == "words")
        printWords(options.app, options.line);
    else if (options.what == "fish")
        std::cout << fishCompletion;
    else
        std::cout << (options.what == "zsh" ? zshCompletion : "") << bashCompletion;
}

struct ManualOptions {
    explicit ManualOptions(CLI::App& command) : app(*command.get_parent()) {}
    const CLI::App& app;
    std::string folder;
};

void writeManual(ManualOptions& options)
{
    std::error_code ignored;
    std::filesystem::create_directories(options.folder, ignored);
    writePage(options.folder, "dxr", options.app);
    for (const CLI::App* command : options.app.get_subcommands(nullptr))
        writePage(options.folder, "dxr-" + command->get_name(), *command);
}

} // namespace

void registerPagesCommands(CLI::App& app)
{
    const auto [manual, manualOptions] =
        addCommand(app, "manual", "Write the man pages of all commands", writeManual);
    addRequired(manual, "folder", manualOptions.folder, "The folder for dxr.1, dxr-list.1 and the others");

    const auto [completion, options] =
        addCommand(app, "completion", "Print a shell's completion of the commands", complete);
    addRequired(completion, "shell", options.what,
                "bash, zsh or fish; 'words' prints candidates for these shells")
        ->check(CLI::IsMember({"bash", "zsh", "fish", "words"}));
    completion.add_option("line", options.line, "For 'words': the command line before the word");
}
