#pragma once

#include "PrivateServer.h"
#include "Ramp.h"
#include "TestClient.h"
#include "ToolProcess.h"
#include "WaveFile.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cstdlib>
#include <regex>

/// Tests the `dxr` command against a private server with another client.
class DxrOnPipeWire : public testing::Test {
protected:
    std::string path(const std::string& name) const { return server.folder() / name; }

    PrivateServer server;
    TestClient client{nameInEnvironment(server)};

private:
    /// Sets the server for the tool. Called before a client connects, because the environment overrides a
    /// client's remote.
    static std::string nameInEnvironment(const PrivateServer& server)
    {
        setenv("PIPEWIRE_REMOTE", server.remote().c_str(), 1);
        return server.remote();
    }
};

/// Returns the sum of the numbers before `words` in the tool's report, without thousands separators; -1 if
/// none.
inline long sumBefore(std::string report, const std::string& words)
{
    std::erase(report, ',');
    const std::regex number("([0-9]+) " + words);
    long sum = -1;
    for (std::sregex_iterator match(report.begin(), report.end(), number); match != std::sregex_iterator();
         ++match)
        sum = std::max(0L, sum) + std::stol((*match)[1]);
    return sum;
}

/// Returns DXR_SOAK_SECONDS, the duration in soaks, or `otherwise` if unset.
inline int soakSecondsOr(int otherwise)
{
    const char* const seconds = std::getenv("DXR_SOAK_SECONDS");
    return seconds ? std::atoi(seconds) : otherwise;
}
