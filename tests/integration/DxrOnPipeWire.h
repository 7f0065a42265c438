#pragma once

#include "PrivateServer.h"
#include "Ramp.h"
#include "TestClient.h"
#include "ToolProcess.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>
#include <sndfile.h>

#include <cstdlib>

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
