#pragma once

#include <chrono>
#include <string>
#include <sys/types.h>
#include <vector>

/// One run of the `dxr` command, in a separate process.
class ToolProcess {
public:
    /// Time limit of a run that should end at once.
    static constexpr std::chrono::seconds patience{30};

    /// Starts `dxr` with these arguments. Its output goes to pipes, or to a pseudo-terminal of 80 columns if
    /// `onTerminal`. If `maxFileBytes` is not 0, files cannot grow beyond it, as on a full disk.
    explicit ToolProcess(const std::vector<std::string>& arguments, bool onTerminal = false,
                         size_t maxFileBytes = 0);
    ~ToolProcess();
    ToolProcess(const ToolProcess&) = delete;
    ToolProcess& operator=(const ToolProcess&) = delete;

    /// Reads the output until it contains `text`. Returns false after the end or after half a minute.
    bool waitFor(const std::string& text);
    void signal(int number) const;
    /// Returns whether the process stops, as by Ctrl-Z, within half a minute.
    bool waitForStop() const;
    /// For a run on a terminal: types keys, and changes the terminal's size.
    void press(const std::string& keys) const;
    void resize(unsigned short columns, unsigned short rows) const;
    /// Whether the terminal echoes input and delivers it by lines, as a shell leaves it, now or at the end.
    bool isCooked();
    /// Waits until the process ends and returns its exit status, or 128 plus the signal that ended it.
    int finish(std::chrono::seconds limit = patience);

    const std::string& output() const { return _output; }
    const std::string& errors() const { return _errors; } ///< empty on a terminal, where output() has both

private:
    bool _readSome(std::chrono::steady_clock::time_point until);

    pid_t _child = -1;
    int _outputFD = -1, _errorFD = -1;
    std::string _output, _errors;
    bool _isCooked = false;
};

struct ToolResult {
    int status;
    std::string output, errors;
};
/// Runs `dxr` until it ends; kills it after `limit`.
ToolResult runTool(const std::vector<std::string>& arguments,
                   std::chrono::seconds limit = ToolProcess::patience);
