#pragma once

#include "AlsaDriver.h"
#include "FakedCards.h"
#include "HALModel.h"
#include "HALReads.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <thread>
#include <unistd.h>

namespace fs = std::filesystem;

/// A folder of the test's own.
class Folder {
public:
    Folder() : path(fs::temp_directory_path() / ("alsa-test-" + std::to_string(getpid())))
    {
        fs::create_directories(path);
    }
    ~Folder() { fs::remove_all(path); }
    void write(const fs::path& file, const std::string& text) const
    {
        fs::create_directories((path / file).parent_path());
        std::ofstream(path / file) << text << "\n";
    }
    const fs::path path;
};

/// The driver over faked cards, whose time waits for a late test.
class AlsaTest : public testing::Test {
protected:
    ~AlsaTest() override { FakedCards::unplugAll(); }

    static FakedCardOptions aCard(const std::string& longName = "unit")
    {
        FakedCardOptions card;
        card.longName = longName;
        return card;
    }
    static std::string uidOf(const std::string& longName, unsigned pcm = 0)
    {
        return "alsa:" + longName + ":" + std::to_string(pcm);
    }

    /// Waits, for so long that only a fault can take longer, until `condition` holds.
    static bool eventually(const std::function<bool()>& condition)
    {
        const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
        while (!condition()) {
            if (std::chrono::steady_clock::now() > deadline)
                return false;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
        return true;
    }
    AudioObjectID device(const std::string& uid)
    {
        AudioObjectID found = kAudioObjectUnknown;
        EXPECT_TRUE(eventually([&] { return (found = deviceWithUID(*hal, uid)) != kAudioObjectUnknown; }))
            << uid;
        return found;
    }
    template <class Value>
    std::optional<Value> read(AudioObjectID object, uint32_t selector,
                              uint32_t scope = kAudioObjectPropertyScopeGlobal)
    {
        return readValue<Value>(*hal, object, at(selector, scope));
    }

    const Folder root; // in place of /sys and /proc: empty
    const CXRef<AlsaDriver> driver = AlsaDriver::init(3, root.path);
    const CXRef<HALModel> hal = HALModel::initWithDriver(driver);
};

/// A running device that plays a ramp, and checks that its input is a ramp: frame k is k * 2^-20, modulo 1.
class Ramp {
public:
    Ramp(HALModel& hal, AudioObjectID deviceID) : _hal(hal), _deviceID(deviceID)
    {
        EXPECT_EQ(
            _hal.createIOProc(
                _deviceID,
                [this](const AudioTimeStamp* now, const AudioBufferList* in, const AudioTimeStamp* inTime,
                       AudioBufferList* out, const AudioTimeStamp* outTime) {
                    _cycle(*now, in, inTime ? *inTime : *now, out, outTime ? *outTime : *now);
                },
                _procID),
            kAudioHardwareNoError);
    }
    ~Ramp() { stop(); }
    Ramp(const Ramp&) = delete;
    Ramp& operator=(const Ramp&) = delete;

    HALStatus start() { return _hal.start(_deviceID, _procID); }
    void stop()
    {
        if (_procID)
            _hal.destroyIOProc(_deviceID, std::exchange(_procID, nullptr));
    }

    std::atomic<uint64_t> cycles{0};
    std::atomic<uint64_t> heard{0};     ///< frames that continued the ramp
    std::atomic<uint64_t> jumps{0};     ///< frames that did not, silence left out
    std::atomic<uint64_t> backwards{0}; ///< sample times before the last one's plus its frames
    std::atomic<uint64_t> gaps{0};      ///< sample times after that
    /// Between a sample's output and its input time, less what was measured.
    std::atomic<double> latencyFrames{0.0};
    std::atomic<double> rateScalar{0.0};
    std::atomic<float> step{1.0F / 1048576.0F};

private:
    void _cycle(const AudioTimeStamp& now, const AudioBufferList* in, const AudioTimeStamp& inTime,
                AudioBufferList* out, const AudioTimeStamp& outTime) noexcept
    {
        uint32_t frames = 0;
        if (in) {
            const AudioBuffer& buffer = in->buffers[0];
            const auto* samples = static_cast<const float*>(buffer.data);
            frames = buffer.dataByteSize / (buffer.numberChannels * 4);
            for (uint32_t frame = 0; frame < frames; ++frame) {
                const float sample = samples[frame * buffer.numberChannels];
                if (sample == 0.0F || _last == 0.0F) {
                } else if (sample == _last + step || sample < _last - 0.9F) {
                    ++heard;
                    // What was played at sample time t carries t.
                    const double time =
                        std::fmod(inTime.sampleTime + frame, 1.0 / static_cast<double>(step.load()));
                    latencyFrames = time - std::round(static_cast<double>(sample / step));
                } else {
                    ++jumps;
                }
                _last = sample;
            }
        }
        if (out) {
            AudioBuffer& buffer = out->buffers[0];
            auto* samples = static_cast<float*>(buffer.data);
            frames = buffer.dataByteSize / (buffer.numberChannels * 4);
            for (uint32_t i = 0; i < frames * buffer.numberChannels; ++i) {
                const double time = outTime.sampleTime + i / buffer.numberChannels;
                samples[i] =
                    static_cast<float>(std::fmod(time, 1.0 / static_cast<double>(step.load()))) * step;
            }
        }
        rateScalar = now.rateScalar;
        if (now.sampleTime < _next)
            ++backwards;
        if (_next > 0.0 && now.sampleTime > _next)
            ++gaps;
        _next = now.sampleTime + frames;
        ++cycles;
    }

    HALModel& _hal;
    const AudioObjectID _deviceID;
    AudioDeviceIOProcID _procID = nullptr;
    float _last = 0.0F;  // the IO thread's
    double _next = -1.0; // the IO thread's
};
