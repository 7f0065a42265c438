#pragma once

#include <chrono>
#include <csignal>
#include <string>
#include <sys/types.h>
#include <vector>

/// One run of the `dxr` command, in a separate process.
class ToolProcess {
public:
    /// Time limit of a run that should end at once.
    static constexpr std::chrono::seconds patience{30};

    /// Starts `dxr` with these arguments. Its output goes to a pipe, or to a pseudo-terminal of 80 columns if
    /// `onTerminal`.
    explicit ToolProcess(const std::vector<std::string>& arguments, bool onTerminal = false);
    ~ToolProcess();
    ToolProcess(const ToolProcess&) = delete;

    /// Reads the output until it contains `text`. Returns false on timeout.
    bool waitFor(const std::string& text);
    void signal(int number) const { kill(_child, number); }
    /// Returns whether the process stops, as by Ctrl-Z.
    bool waitForStop() const;
    /// Where keys are typed, and whose modes and size can be changed, of a run on a terminal.
    int terminal() const { return _outputFD; }
    /// Waits until the process ends and returns its exit status, or 128 plus the signal that ended it.
    int finish(std::chrono::seconds limit = patience);

    const std::string& output() const { return _output; }
    std::string errors() const; ///< empty on a terminal, where output() has both

private:
    void _readAvailable();

    pid_t _child = -1;
    int _outputFD = -1, _errorFD = -1;
    std::string _output;
};

/// What is left of a run's errors without the lines that a machine without real-time scheduling, such as most
/// containers, adds.
std::string withoutSchedulingNotices(const std::string& errors);

struct ToolResult {
    int status;
    std::string output, errors;
};
/// Runs `dxr` until it ends; kills it after `limit`.
ToolResult runTool(const std::vector<std::string>& arguments,
                   std::chrono::seconds limit = ToolProcess::patience);
