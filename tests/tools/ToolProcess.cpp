#include "ToolProcess.h"

#include "Eventually.h"

#include <algorithm>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <regex>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

[[noreturn]] void becomeTool(const std::vector<std::string>& arguments)
{
    std::vector<char*> argv{const_cast<char*>("dxr")};
    for (const std::string& argument : arguments)
        argv.push_back(const_cast<char*>(argument.c_str()));
    argv.push_back(nullptr);
    setenv("TERM", "xterm", 1);
    unsetenv("NO_COLOR");
    unsetenv("COLUMNS");
    execv(DXR_TOOL, argv.data());
    _exit(127);
}

} // namespace

ToolProcess::ToolProcess(const std::vector<std::string>& arguments, bool onTerminal)
    : _errorFD(memfd_create("errors", MFD_CLOEXEC))
{
    int output[2] = {-1, -1};
    if (onTerminal) {
        const winsize size{40, 80, 0, 0};
        _child = forkpty(&output[0], nullptr, nullptr, &size);
    } else if (pipe2(output, O_CLOEXEC) == 0) {
        _child = fork();
    }
    if (_child == 0) {
        if (!onTerminal) {
            dup2(output[1], STDOUT_FILENO);
            dup2(_errorFD, STDERR_FILENO);
        }
        becomeTool(arguments);
    }
    close(output[1]);
    _outputFD = output[0];
}

ToolProcess::~ToolProcess()
{
    if (_child > 0) {
        kill(_child, SIGKILL);
        waitpid(_child, nullptr, 0);
    }
    close(_outputFD);
    close(_errorFD);
}

bool ToolProcess::_readSome(std::chrono::steady_clock::time_point until)
{
    using std::chrono::milliseconds;
    pollfd waited{_outputFD, POLLIN, 0};
    const auto left = std::chrono::duration_cast<milliseconds>(until - std::chrono::steady_clock::now());
    if (_isAtEnd || left <= milliseconds::zero() || poll(&waited, 1, static_cast<int>(left.count())) <= 0)
        return false;
    char bytes[4096];
    const ssize_t count = read(_outputFD, bytes, sizeof bytes);
    _isAtEnd = count <= 0;
    if (!_isAtEnd)
        _output.append(bytes, static_cast<size_t>(count));
    return !_isAtEnd;
}

bool ToolProcess::waitFor(const std::string& text)
{
    const auto until = std::chrono::steady_clock::now() + patience;
    while (_output.find(text) == std::string::npos)
        if (!_readSome(until))
            return false;
    return true;
}

bool ToolProcess::waitForStop() const
{
    int status = 0;
    return eventually([&] { return waitpid(_child, &status, WUNTRACED | WNOHANG) != 0; }) &&
           WIFSTOPPED(status);
}

int ToolProcess::finish(std::chrono::seconds limit)
{
    const auto until = std::chrono::steady_clock::now() + limit;
    while (_readSome(until)) {
    }
    if (!_isAtEnd)
        kill(_child, SIGKILL); // it hangs; the exit status shows the signal
    int status = 0;
    waitpid(_child, &status, 0);
    _child = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string ToolProcess::errors() const
{
    std::string text(65536, '\0');
    const ssize_t size = pread(_errorFD, text.data(), text.size(), 0);
    text.resize(static_cast<size_t>(std::max<ssize_t>(size, 0)));
    return withoutSchedulingNotices(text);
}

std::string withoutSchedulingNotices(const std::string& errors)
{
    static const std::regex notice("(thread_policy_set returned|No real-time scheduling)[^\n]*\n");
    return std::regex_replace(errors, notice, "");
}

ToolResult runTool(const std::vector<std::string>& arguments, std::chrono::seconds limit)
{
    ToolProcess tool(arguments);
    const int status = tool.finish(limit);
    return {status, tool.output(), tool.errors()};
}
