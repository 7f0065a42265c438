#include "ToolProcess.h"

#include <csignal>
#include <poll.h>
#include <pty.h>
#include <sys/ioctl.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

namespace {

[[noreturn]] void becomeTool(const std::vector<std::string>& arguments, size_t maxFileBytes)
{
    if (maxFileBytes > 0) {
        const rlimit limit{maxFileBytes, maxFileBytes};
        setrlimit(RLIMIT_FSIZE, &limit);
        std::signal(SIGXFSZ, SIG_IGN); // writing fails instead of ending the process, as on a full disk
    }
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

ToolProcess::ToolProcess(const std::vector<std::string>& arguments, bool onTerminal, size_t maxFileBytes)
{
    if (onTerminal) {
        const winsize size{40, 80, 0, 0};
        _child = forkpty(&_outputFD, nullptr, nullptr, &size);
        if (_child == 0)
            becomeTool(arguments, maxFileBytes);
        return;
    }
    int output[2], errors[2];
    if (pipe(output) != 0 || pipe(errors) != 0)
        return;
    _child = fork();
    if (_child == 0) {
        dup2(output[1], STDOUT_FILENO);
        dup2(errors[1], STDERR_FILENO);
        for (const int fd : {output[0], output[1], errors[0], errors[1]})
            close(fd);
        becomeTool(arguments, maxFileBytes);
    }
    close(output[1]);
    close(errors[1]);
    _outputFD = output[0];
    _errorFD = errors[0];
}

ToolProcess::~ToolProcess()
{
    if (_child > 0) {
        kill(_child, SIGKILL);
        waitpid(_child, nullptr, 0);
    }
    for (const int fd : {_outputFD, _errorFD})
        if (fd >= 0)
            close(fd);
}

bool ToolProcess::_readSome(std::chrono::steady_clock::time_point until)
{
    using std::chrono::milliseconds;
    pollfd waited[] = {{_outputFD, POLLIN, 0}, {_errorFD, POLLIN, 0}};
    const auto left = std::chrono::duration_cast<milliseconds>(until - std::chrono::steady_clock::now());
    if ((_outputFD < 0 && _errorFD < 0) || left <= milliseconds::zero() ||
        poll(waited, 2, static_cast<int>(left.count())) <= 0)
        return false;
    char bytes[4096];
    for (const auto& [fd, text] : {std::pair(&_outputFD, &_output), std::pair(&_errorFD, &_errors)}) {
        if (waited[fd == &_errorFD].revents == 0)
            continue;
        const ssize_t count = read(*fd, bytes, sizeof bytes);
        if (count > 0) {
            text->append(bytes, static_cast<size_t>(count));
        } else {
            isCooked();
            close(*fd);
            *fd = -1;
        }
    }
    return true;
}

bool ToolProcess::waitFor(const std::string& text)
{
    const auto until = std::chrono::steady_clock::now() + patience;
    while (_output.find(text) == std::string::npos)
        if (!_readSome(until))
            return _output.find(text) != std::string::npos;
    return true;
}

void ToolProcess::signal(int number) const
{
    kill(_child, number);
}

bool ToolProcess::waitForStop() const
{
    const auto until = std::chrono::steady_clock::now() + patience;
    int status = 0;
    while (waitpid(_child, &status, WUNTRACED | WNOHANG) == 0 && std::chrono::steady_clock::now() < until)
        usleep(10'000);
    return WIFSTOPPED(status);
}

void ToolProcess::press(const std::string& keys) const
{
    [[maybe_unused]] const ssize_t written = write(_outputFD, keys.data(), keys.size());
}

void ToolProcess::resize(unsigned short columns, unsigned short rows) const
{
    const winsize size{rows, columns, 0, 0};
    ioctl(_outputFD, TIOCSWINSZ, &size);
}

bool ToolProcess::isCooked()
{
    termios modes{};
    if (_outputFD >= 0 && tcgetattr(_outputFD, &modes) == 0)
        _isCooked = (modes.c_lflag & (ECHO | ICANON)) == (ECHO | ICANON);
    return _isCooked;
}

int ToolProcess::finish(std::chrono::seconds limit)
{
    const auto until = std::chrono::steady_clock::now() + limit;
    while (_readSome(until)) {
    }
    if (_outputFD >= 0 || _errorFD >= 0)
        kill(_child, SIGKILL); // it hangs; the exit status shows the signal
    int status = 0;
    waitpid(_child, &status, 0);
    _child = -1;
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

ToolResult runTool(const std::vector<std::string>& arguments, std::chrono::seconds limit)
{
    ToolProcess tool(arguments);
    const int status = tool.finish(limit);
    return {status, tool.output(), tool.errors()};
}
