#pragma once

#include <chrono>
#include <string>
#include <sys/types.h>
#include <vector>

/// One run of the `dxr` command, in a process of its own.
class ToolProcess {
public:
    /// How long a run may take that should be over at once.
    static constexpr std::chrono::seconds patience{30};

    /// Starts `dxr` with these arguments, its output in pipes; on a pseudo-terminal of 80 columns when
    /// `onTerminal`. Files may grow to `maxFileBytes`, if not 0, as on a full disk.
    explicit ToolProcess(const std::vector<std::string>& arguments, bool onTerminal = false,
                         size_t maxFileBytes = 0);
    ~ToolProcess();
    ToolProcess(const ToolProcess&) = delete;
    ToolProcess& operator=(const ToolProcess&) = delete;

    /// Reads its output until `text` has come; false when it ends, or half a minute passes, before that.
    bool waitFor(const std::string& text);
    void signal(int number) const;
    /// Whether it stops, as by Ctrl-Z, within half a minute.
    bool waitForStop() const;
    /// On a terminal: presses keys, and gives it another size.
    void press(const std::string& keys) const;
    void resize(unsigned short columns, unsigned short rows) const;
    /// On a terminal: whether it shows what is typed, and gives it line by line, as a shell leaves it; after
    /// the end, whether it did then.
    bool isCooked();
    /// Waits for its end and returns the exit status; 128 plus the signal that has killed it.
    int finish(std::chrono::seconds limit = patience);

    const std::string& output() const { return _output; }
    const std::string& errors() const { return _errors; } ///< empty on a terminal, which shows both

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
/// Runs `dxr` to its end, which is its death after `limit`.
ToolResult runTool(const std::vector<std::string>& arguments,
                   std::chrono::seconds limit = ToolProcess::patience);
