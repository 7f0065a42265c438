#pragma once

#include <gtest/gtest.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>

/// Starts a private message bus and stores its address in an environment variable in place of the user's bus.
class PrivateBus {
public:
    explicit PrivateBus(const char* variable)
    {
        FILE* const pipe = popen("exec dbus-daemon --session --fork --print-address=1 --print-pid=1", "r");
        char address[512]{};
        EXPECT_EQ(std::fscanf(pipe, "%511s %d", address, &_daemon), 2) << "dbus-daemon does not run";
        pclose(pipe);
        setenv(variable, address, 1);
    }
    ~PrivateBus()
    {
        if (_daemon > 0) // kill(-1) would end every process of the user
            kill(_daemon, SIGKILL);
    }
    /// From now on, the bus accepts connections and never replies.
    void freeze() const { kill(_daemon, SIGSTOP); }
    PrivateBus(const PrivateBus&) = delete;

private:
    pid_t _daemon = -1;
};
