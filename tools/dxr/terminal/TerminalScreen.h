#pragma once

#include "Interrupts.h"
#include "Terminal.h"

#include <atomic>
#include <csignal>
#include <sys/ioctl.h>
#include <termios.h>
#include <unistd.h>

namespace terminal {

// Enter and leave the alternate screen, without a cursor and line wrap.
inline constexpr char enterSequence[] = "\x1B[?1049h\x1B[?25l\x1B[?7l\x1B[2J";
inline constexpr char leaveSequence[] = "\x1B[?7h\x1B[?25h\x1B[?1049l";
inline constexpr char controlZ = 0x1A;
inline constexpr int deadlySignals[] = {SIGABRT, SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGQUIT};

// Used by the signal handlers. The terminal's previous modes do not change while isEntered is true.
inline std::atomic<bool> isEntered{false};
inline std::atomic<bool> hasModes{false};
inline termios modesBefore;

inline void writeAll(std::string_view bytes)
{
    while (!bytes.empty()) {
        const ssize_t written = ::write(STDOUT_FILENO, bytes.data(), bytes.size());
        if (written < 0 && errno != EINTR)
            return; // the terminal was closed
        bytes.remove_prefix(static_cast<size_t>(std::max<ssize_t>(written, 0)));
    }
}

/// Restores the terminal, once. Also called by signal handlers.
inline void restoreTerminal()
{
    if (!isEntered.exchange(false))
        return;
    writeAll(leaveSequence);
    if (hasModes)
        tcsetattr(STDIN_FILENO, TCSANOW, &modesBefore);
}

extern "C" inline void restoreAndDie(int signal)
{
    restoreTerminal();
    raise(signal); // SA_RESETHAND has restored the default handler
}

} // namespace terminal

/// Draws on the whole terminal and reads keys without waiting for Return. The terminal's previous contents
/// are restored at the end, however the process ends, except by SIGKILL. At most one instance in a process.
class TerminalScreen {
public:
    /// Throws ToolFailure if standard output is not a terminal that understands escape codes.
    TerminalScreen()
    {
        if (!Terminal().isLive())
            throw ToolFailure("standard output is not a terminal; 'dxr watch' prints lines instead");
        terminal::hasModes = tcgetattr(STDIN_FILENO, &terminal::modesBefore) == 0;
        for (const int signal : terminal::deadlySignals)
            Interrupts::setHandler(signal, terminal::restoreAndDie,
                                   static_cast<int>(SA_RESETHAND | SA_NODEFER));
        const auto interruptPoll = [](int) {}; // the size is read before each picture
        Interrupts::setHandler(SIGWINCH, interruptPoll, 0);
        Interrupts::setLastAct(terminal::restoreTerminal);
        _enter();
    }
    ~TerminalScreen()
    {
        terminal::restoreTerminal();
        Interrupts::setLastAct(nullptr);
        Interrupts::setHandler(SIGWINCH, SIG_DFL, 0);
        for (const int signal : terminal::deadlySignals)
            Interrupts::setHandler(signal, SIG_DFL, 0);
    }
    TerminalScreen(const TerminalScreen&) = delete;
    TerminalScreen& operator=(const TerminalScreen&) = delete;

    /// The current size; 80 x 24 if unknown.
    winsize size() const
    {
        winsize size{};
        const bool isKnown =
            ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0 && size.ws_col > 0 && size.ws_row > 0;
        return isKnown ? size : winsize{24, 80, 0, 0};
    }
    /// Replaces the picture. The lines must fit the size.
    void draw(const std::vector<std::string>& lines)
    {
        std::string picture = "\x1B[H";
        for (size_t i = 0; i < lines.size(); ++i)
            picture += (i == 0 ? "" : "\r\n") + lines[i] + "\x1B[K";
        picture += "\x1B[J";
        terminal::writeAll(picture);
    }

    /// A descriptor that polls readable when a key was pressed; -1 if standard input is not a terminal.
    int keyboard() const noexcept { return terminal::hasModes ? STDIN_FILENO : -1; }
    /// The bytes of the keys pressed since the last call. On Ctrl-Z, suspends the process during the call.
    std::string takeKeys()
    {
        std::string keys;
        char bytes[64];
        while (terminal::hasModes) {
            const ssize_t count = ::read(STDIN_FILENO, bytes, sizeof bytes);
            if (count <= 0)
                break;
            keys.append(bytes, static_cast<size_t>(count));
        }
        if (keys.find(terminal::controlZ) != std::string::npos)
            _stopProcess();
        return keys;
    }

private:
    void _enter()
    {
        if (terminal::hasModes) {
            termios modes = terminal::modesBefore;
            modes.c_lflag &= ~static_cast<tcflag_t>(ECHO | ICANON);
            modes.c_cc[VMIN] = modes.c_cc[VTIME] = 0; // a read does not wait
            modes.c_cc[VSUSP] = _POSIX_VDISABLE;      // Ctrl-Z is read as a key: restores the screen first
            tcsetattr(STDIN_FILENO, TCSANOW, &modes);
        }
        terminal::isEntered = true;
        terminal::writeAll(terminal::enterSequence);
    }
    void _stopProcess()
    {
        terminal::restoreTerminal();
        raise(SIGSTOP);
        if (terminal::hasModes)
            tcgetattr(STDIN_FILENO, &terminal::modesBefore); // the shell may have changed the modes
        _enter();
    }
};
