#include "PrivateProcess.h"

#include <csignal>
#include <cstdlib>
#include <stdexcept>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::vector<char*> pointers(std::vector<std::string>& texts)
{
    std::vector<char*> all;
    for (std::string& text : texts)
        all.push_back(text.data());
    all.push_back(nullptr);
    return all;
}

} // namespace

pid_t startPrivateProcess(const std::vector<std::string>& command, const std::filesystem::path& folder,
                          const std::vector<std::string>& variables)
{
    const char* path = std::getenv("PATH");
    std::vector<std::string> environment{std::string("PATH=") + (path ? path : "/usr/bin:/bin"),
                                         "HOME=" + folder.string(), "XDG_RUNTIME_DIR=" + folder.string()};
    environment.insert(environment.end(), variables.begin(), variables.end());
    std::vector<std::string> arguments = command;
    const std::vector<char*> argv = pointers(arguments);
    const std::vector<char*> envp = pointers(environment);

    const pid_t process = fork();
    if (process < 0)
        throw std::runtime_error("cannot start " + command.front());
    if (process == 0) {
        sigset_t none;
        sigemptyset(&none);
        sigprocmask(SIG_SETMASK, &none, nullptr);
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        execvpe(argv[0], argv.data(), envp.data());
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
