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

/// The `dxr` command against a server of the test's own, which has another client.
class DxrOnPipeWire : public testing::Test {
protected:
    std::string path(const std::string& name) const { return server.folder() / name; }

    PrivateServer server;
    TestClient client{nameInEnvironment(server)};

private:
    /// For the tool, and before a client connects: the environment precedes a client's own choice.
    static std::string nameInEnvironment(const PrivateServer& server)
    {
        setenv("PIPEWIRE_REMOTE", server.remote().c_str(), 1);
        return server.remote();
    }
};

/// The sum of the numbers before `words` in the tool's report; -1 when there is none. Groups of three are joined.
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

/// How long a test shall take, in the long runs.
inline int soakSecondsOr(int otherwise)
{
    const char* const seconds = std::getenv("DXR_SOAK_SECONDS");
    return seconds ? std::atoi(seconds) : otherwise;
}

/// Writes a stereo WAV file of floats whose frame k is `sampleOf(k)`.
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

/// The channels of a sound file; none when it cannot be read.
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
