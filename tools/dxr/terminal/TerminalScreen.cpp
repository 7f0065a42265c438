#include "TerminalScreen.h"

#include "Interrupts.h"
#include "Terminal.h"

#include <atomic>
#include <csignal>
#include <cstring>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

namespace {

// Enter and leave the alternate screen, without a cursor and line wrap.
constexpr char enterSequence[] = "\x1B[?1049h\x1B[?25l\x1B[?7l\x1B[2J";
constexpr char leaveSequence[] = "\x1B[?7h\x1B[?25h\x1B[?1049l";
constexpr char controlZ = 0x1A;
constexpr int deadlySignals[] = {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGQUIT};

// Used by the signal handlers. modesBefore are the terminal's previous modes; they do not change while
// isEntered is true.
std::atomic<bool> isEntered{false};
std::atomic<bool> hasModes{false};
termios modesBefore;

void writeAll(const char* bytes, size_t count)
{
    while (count > 0) {
        const ssize_t written = ::write(STDOUT_FILENO, bytes, count);
        if (written < 0 && errno != EINTR)
            return; // the terminal was closed
        if (written > 0) {
            bytes += written;
            count -= static_cast<size_t>(written);
        }
    }
}

/// Restores the terminal, once. Also called by signal handlers.
void restoreTerminal()
{
    if (!isEntered.exchange(false))
        return;
    writeAll(leaveSequence, sizeof leaveSequence - 1);
    if (hasModes)
        tcsetattr(STDIN_FILENO, TCSANOW, &modesBefore);
}

extern "C" void restoreAndDie(int signal)
{
    restoreTerminal();
    raise(signal); // SA_RESETHAND has restored the default handler
}

extern "C" void noteNewSize(int)
{
    // The signal interrupts poll(); the size is read before each picture.
}

} // namespace

TerminalScreen::TerminalScreen()
{
    if (!Terminal().isLive())
        throw ToolFailure("standard output is not a terminal; 'dxr watch' prints lines instead");
    if (tcgetattr(STDIN_FILENO, &modesBefore) == 0) {
        hasModes = true;
        _keyboard = STDIN_FILENO;
    }
    for (const int signal : deadlySignals)
        Interrupts::setHandler(signal, restoreAndDie, static_cast<int>(SA_RESETHAND | SA_NODEFER));
    Interrupts::setHandler(SIGWINCH, noteNewSize, 0);
    Interrupts::setLastAct(restoreTerminal);
    _enter();
}

TerminalScreen::~TerminalScreen()
{
    restoreTerminal();
    Interrupts::setLastAct(nullptr);
    Interrupts::setHandler(SIGWINCH, SIG_DFL, 0);
    for (const int signal : deadlySignals)
        Interrupts::setHandler(signal, SIG_DFL, 0);
    hasModes = false;
}

void TerminalScreen::_enter()
{
    if (hasModes) {
        termios modes = modesBefore;
        modes.c_lflag &= ~static_cast<tcflag_t>(ECHO | ICANON);
        modes.c_cc[VMIN] = 0;
        modes.c_cc[VTIME] = 0;
        modes.c_cc[VSUSP] = _POSIX_VDISABLE; // Ctrl-Z is read as a key: restores the screen first
        tcsetattr(STDIN_FILENO, TCSANOW, &modes);
    }
    isEntered = true;
    writeAll(enterSequence, sizeof enterSequence - 1);
}

void TerminalScreen::_stopProcess()
{
    restoreTerminal();
    raise(SIGSTOP);
    if (hasModes)
        tcgetattr(STDIN_FILENO, &modesBefore); // the shell may have changed the modes
    _enter();
}

TerminalScreen::Size TerminalScreen::size() const
{
    winsize size{};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0)
        return {80, 24};
    return {size.ws_col, size.ws_row};
}

void TerminalScreen::draw(const std::vector<std::string>& lines)
{
    std::string picture = "\x1B[H";
    for (size_t i = 0; i < lines.size(); ++i)
        picture += (i == 0 ? "" : "\r\n") + lines[i] + "\x1B[K";
    picture += "\x1B[J";
    writeAll(picture.data(), picture.size());
}

std::string TerminalScreen::takeKeys()
{
    std::string keys;
    char bytes[64];
    while (_keyboard >= 0) {
        const ssize_t count = ::read(_keyboard, bytes, sizeof bytes);
        if (count <= 0)
            break;
        keys.append(bytes, static_cast<size_t>(count));
    }
    if (keys.find(controlZ) != std::string::npos)
        _stopProcess();
    return keys;
}
