#pragma once

#include "PrivateServer.h"
#include "Ramp.h"
#include "TestClient.h"
#include "ToolProcess.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sndfile.h>

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

/// Writes a stereo WAV file of floats; frame k is `sampleOf(k)` in both channels.
inline void writeWave(const std::string& path, int rate, sf_count_t frames,
                      const std::function<float(size_t)>& sampleOf)
{
    SF_INFO info{};
    info.samplerate = rate;
    info.channels = 2;
    info.format = SF_FORMAT_WAV | SF_FORMAT_FLOAT;
    std::vector<float> samples(static_cast<size_t>(frames) * 2);
    for (size_t i = 0; i < samples.size(); ++i)
        samples[i] = sampleOf(i / 2);
    SNDFILE* file = sf_open(path.c_str(), SFM_WRITE, &info);
    EXPECT_EQ(sf_writef_float(file, samples.data(), frames), frames);
    sf_close(file);
}

/// Returns the channels of a sound file; none if it cannot be read.
inline std::vector<std::vector<float>> channelsOfWave(const std::string& path)
{
    SF_INFO info{};
    SNDFILE* file = sf_open(path.c_str(), SFM_READ, &info);
    std::vector<std::vector<float>> channels(static_cast<size_t>(file ? info.channels : 0));
    for (std::vector<float> frame(channels.size()); file && sf_readf_float(file, frame.data(), 1) == 1;)
        for (size_t channel = 0; channel < channels.size(); ++channel)
            channels[channel].push_back(frame[channel]);
    sf_close(file);
    return channels;
}
