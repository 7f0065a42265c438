#include "PrivateProcess.h"

#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

pid_t startPrivateProcess(const std::vector<std::string>& command, const std::filesystem::path& folder,
                          const std::vector<std::string>& variables)
{
    const char* path = std::getenv("PATH");
    std::vector<std::string> words{"env", "-i", std::string("PATH=") + (path ? path : "/usr/bin:/bin"),
                                   "HOME=" + folder.string(), "XDG_RUNTIME_DIR=" + folder.string()};
    words.insert(words.end(), variables.begin(), variables.end());
    words.insert(words.end(), command.begin(), command.end());
    std::vector<char*> arguments;
    for (std::string& word : words)
        arguments.push_back(word.data());
    arguments.push_back(nullptr);

    const pid_t process = fork();
    if (process < 0)
        throw std::runtime_error("cannot start " + command.front());
    if (process == 0) {
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        execvp(arguments[0], arguments.data());
        _exit(127);
    }
    return process;
}

void endPrivateProcess(pid_t process, int signal)
{
    kill(process, signal);
    kill(process, SIGCONT);
    waitpid(process, nullptr, 0);
}
