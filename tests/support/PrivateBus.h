#pragma once

#include <gtest/gtest.h>

#include <csignal>
#include <cstdlib>
#include <string>
#include <sys/wait.h>
#include <unistd.h>

/// Starts a private message bus and stores its address in an environment variable in place of the user's bus.
class PrivateBus {
public:
    explicit PrivateBus(const char* variable)
    {
        int ends[2];
        if (pipe(ends) != 0) {
            ADD_FAILURE() << "no pipe";
            return;
        }
        const std::string print = "--print-address=" + std::to_string(ends[1]);
        _daemon = fork();
        if (_daemon == 0) {
            execlp("dbus-daemon", "dbus-daemon", "--session", "--nofork", print.c_str(), nullptr);
            _exit(127);
        }
        close(ends[1]);
        char line[512]{};
        const ssize_t size = read(ends[0], line, sizeof line - 1); // returns when it listens
        close(ends[0]);
        EXPECT_GT(size, 1) << "dbus-daemon does not run";
        const std::string address(line);
        setenv(variable, address.substr(0, address.find('\n')).c_str(), 1);
    }
    ~PrivateBus()
    {
        if (_daemon <= 0) // kill(-1) would end every process of the user
            return;
        kill(_daemon, SIGKILL);
        waitpid(_daemon, nullptr, 0);
    }
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;

private:
    pid_t _daemon = -1;
};
