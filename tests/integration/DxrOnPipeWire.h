#pragma once

#include "PrivateServer.h"
#include "Ramp.h"
#include "TestClient.h"
#include "ToolProcess.h"
#include "WaveFile.h"

#include <gtest/gtest.h>

#include <numeric>
#include <regex>

/// Tests the `dxr` command against a private server with another client.
class DxrOnPipeWire : public testing::Test {
protected:
    std::string path(const std::string& name) const { return server.folder() / name; }

    PrivateServer server;
    // For the tool. Set before a client connects, because the environment overrides a client's remote.
    const int isNamed = setenv("PIPEWIRE_REMOTE", server.remote().c_str(), 1);
    TestClient client{server.remote()};
};

/// Returns the numbers before `words` in the tool's report, without thousands separators.
inline std::vector<double> numbersBefore(std::string report, const std::string& words)
{
    std::erase(report, ',');
    const std::regex number("([-+]?[0-9.]+) " + words);
    std::vector<double> numbers;
    for (std::sregex_iterator match(report.begin(), report.end(), number), end; match != end; ++match)
        numbers.push_back(std::stod((*match)[1]));
    return numbers;
}
/// Returns their sum; -1 if there are none.
inline long sumBefore(const std::string& report, const std::string& words)
{
    const std::vector<double> numbers = numbersBefore(report, words);
    return numbers.empty() ? -1 : std::lround(std::accumulate(numbers.begin(), numbers.end(), 0.0));
}
