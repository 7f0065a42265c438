#include "Commands.h"
#include "Interrupts.h"

#include <algorithm>
#include <clocale>
#include <cstdio>
#include <dxr/DXRVersion.h>
#include <numeric>

namespace {

constexpr void (*commands[])(CLI::App&) = {
    registerListCommands,     registerInfoCommand,  registerSetCommands,     registerArchiveCommands,
    registerLoopCommand,      registerPlayCommand,  registerRecordCommand,   registerTraceCommand,
    registerMonitorCommand,   registerDemoCommand,  registerResampleCommand, registerPlotCommand,
    registerAggregateCommand, registerPagesCommands};

/// The edit distance of two words.
size_t distance(const std::string& a, const std::string& b)
{
    std::vector<size_t> row(b.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 0; i < a.size(); ++i) {
        size_t diagonal = std::exchange(row[0], i + 1);
        for (size_t j = 0; j < b.size(); ++j)
            diagonal =
                std::exchange(row[j + 1], std::min({row[j] + 1, row[j + 1] + 1, diagonal + (a[i] != b[j])}));
    }
    return row.back();
}

/// Throws CLI::ValidationError if `word` is not a command; the message suggests the most similar one.
void requireCommand(const CLI::App& app, const std::string& word)
{
    const std::vector<const CLI::App*> all = app.get_subcommands(nullptr); // without a filter: all
    if (word.empty() || word.starts_with('-') ||
        std::ranges::find(all, word, &CLI::App::get_name) != all.end())
        return;
    const auto distanceOf = [&](const CLI::App* command) { return distance(word, command->get_name()); };
    const std::string nearest = (*std::ranges::min_element(all, {}, distanceOf))->get_name();
    throw CLI::ValidationError("no command '" + singleLine(word) + "'" +
                               (distance(word, nearest) <= 2 ? "; did you mean '" + nearest + "'?" : ""));
}

/// Parses the command line and runs its command. Returns the exit status.
int runCommandLine(CLI::App& app, int argc, char** argv)
{
    int status = 0;
    try {
        const std::string first = argc > 1 ? argv[1] : "";
        if (first == "help")
            throw CLI::CallForHelp();
        requireCommand(app, first);
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        status = app.exit(error) == 0 ? 0 : ToolFailure::usageExitStatus;
    } catch (const std::bad_alloc&) {
        throw;
    } catch (const std::exception& failure) {
        std::cout.flush();
        std::cerr << "dxr: " << failure.what() << "\n";
        return ToolFailure::exitStatus;
    }
    if (status == 0 && !std::cout.flush()) {
        std::cerr << "dxr: cannot write to standard output\n";
        return ToolFailure::exitStatus;
    }
    return status;
}

} // namespace

int main(int argc, char** argv)
try {
    std::setlocale(LC_CTYPE, "C.UTF-8"); // names are UTF-8
    CLI::App app{"Discovers, monitors and combines audio devices", "dxr"};
    app.set_version_flag("--version,-V", std::string("dxr ") + DXRVersionString());
    app.require_subcommand(1);
    for (const auto registerCommand : commands)
        registerCommand(app);
    Interrupts::endProcess(runCommandLine(app, argc, argv));
} catch (...) {
    std::fputs("dxr: out of memory\n", stderr);
    return ToolFailure::exitStatus;
}
