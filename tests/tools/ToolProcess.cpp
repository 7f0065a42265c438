#include "ToolProcess.h"

#include "ContentOf.h"
#include "Eventually.h"

#include <fcntl.h>
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
    fcntl(_outputFD, F_SETFL, O_NONBLOCK);
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

void ToolProcess::_readAvailable()
{
    char bytes[4096];
    for (ssize_t count = 0; (count = read(_outputFD, bytes, sizeof bytes)) > 0;)
        _output.append(bytes, static_cast<size_t>(count));
}

bool ToolProcess::waitFor(const std::string& text)
{
    return eventually([&] {
        _readAvailable();
        return _output.find(text) != std::string::npos;
    });
}

bool ToolProcess::waitForStop() const
{
    int status = 0;
    return eventually([&] { return waitpid(_child, &status, WUNTRACED | WNOHANG) != 0; }) &&
           WIFSTOPPED(status);
}

int ToolProcess::finish(std::chrono::seconds limit)
{
    const auto end = std::chrono::steady_clock::now() + limit;
    int status = 0;
    while (waitpid(_child, &status, WNOHANG) == 0) {
        _readAvailable(); // otherwise it would wait when the pipe is full
        if (std::chrono::steady_clock::now() > end)
            kill(_child, SIGKILL); // it hangs; the exit status shows the signal
        sleepForMilliseconds(2);
    }
    _readAvailable();
    _child = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string ToolProcess::errors() const
{
    return withoutSchedulingNotices(contentOf("/proc/self/fd/" + std::to_string(_errorFD)));
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
