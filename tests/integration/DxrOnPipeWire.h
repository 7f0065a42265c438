#pragma once

#include "PrivateServer.h"
#include "ToolProcess.h"
#include "VirtualDevices.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cmath>
#include <cstdlib>

/// The `dxr` command against a server of the test's own.
class DxrOnPipeWire : public testing::Test {
protected:
    DxrOnPipeWire() { setenv("PIPEWIRE_REMOTE", server.remote().c_str(), 1); } // ours, and the tool's

    std::string path(const std::string& name) const { return server.folder() / name; }

    PrivateServer server;
};

/// The number before the first `words` in the tool's report; -1 when it is not there. Groups of three are joined.
inline long numberBefore(const std::string& report, const std::string& words)
{
    size_t end = report.find(" " + words);
    if (end == std::string::npos)
        return -1;
    std::string digits;
    while (end > 0 && (std::isdigit(static_cast<unsigned char>(report[end - 1])) || report[end - 1] == ','))
        if (const char c = report[--end]; c != ',')
            digits.insert(digits.begin(), c);
    return digits.empty() ? -1 : std::stol(digits);
}
