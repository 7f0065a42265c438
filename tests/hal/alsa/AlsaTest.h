#pragma once

#include "AlsaDriver.h"
#include "FakedCards.h"
#include "HALIO.h"

#include <cmath>
#include <filesystem>
#include <fstream>
#include <unistd.h>

namespace fs = std::filesystem;

/// A private temporary folder, removed with its contents by the destructor.
class Folder {
public:
    ~Folder() { fs::remove_all(path); }
    void write(const fs::path& file, const std::string& text) const
    {
        fs::create_directories((path / file).parent_path());
        std::ofstream(path / file) << text << "\n";
    }
    const fs::path path = fs::temp_directory_path() / ("alsa-test-" + std::to_string(getpid()));
};

/// Tests the driver over faked cards, whose clocks wait for a late test.
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

    AudioObjectID device(const std::string& uid)
    {
        const AudioObjectID found = waitForDevice(*hal, uid);
        EXPECT_NE(found, kAudioObjectUnknown) << uid;
        return found;
    }
    template <class Value>
    std::optional<Value> read(AudioObjectID object, uint32_t selector,
                              uint32_t scope = kAudioObjectPropertyScopeGlobal)
    {
        return readValue<Value>(*hal, object, at(selector, scope));
    }
    /// Waits until a property has this value.
    template <class Value>
    bool becomes(Value value, AudioObjectID object, uint32_t selector,
                 uint32_t scope = kAudioObjectPropertyScopeGlobal)
    {
        return eventually([&] { return read<Value>(object, selector, scope) == value; });
    }

    const Folder root; // replaces /sys and /proc: empty
    const CXRef<HALModel> hal = HALModel::initWithDriver(AlsaDriver::init(3, root.path));
};

/// Plays on a device a ramp that shows each sample's time, and compares it with the time of the input.
class Ramp : public CycleWitness {
public:
    Ramp(HALModel& hal, AudioObjectID deviceID) : _hal(hal), _deviceID(deviceID) {}
    HALStatus start()
    {
        return _proc.emplace(_hal, _deviceID, eachCycle([this](const IOCycle& cycle) { _run(cycle); }))
            .status;
    }
    void stop() { _proc.reset(); }

    std::atomic<uint64_t> heard{0};             ///< samples that are not silent
    std::atomic<uint64_t> jumps{0};             ///< changes of the latency
    std::atomic<double> latencyFrames{-1.0};    ///< from a sample's output time to its input time
    std::atomic<float> step{1.0F / 1048576.0F}; ///< frame k is k * step, modulo 1

private:
    void _run(const IOCycle& cycle) noexcept
    {
        const double length = 1.0 / static_cast<double>(step.load());
        const size_t inputs = cycle.input ? cycle.in().size() / cycle.frames() : 0;
        for (size_t i = 0; inputs > 0 && i < cycle.frames(); ++i) {
            const auto played = static_cast<double>(cycle.in()[i * inputs] / step);
            const double time = cycle.inputTime->sampleTime + static_cast<double>(i);
            const double latency = std::fmod(time + length - played, length);
            if (played == 0.0)
                continue;
            jumps += heard > 0 && latency != latencyFrames;
            latencyFrames = latency;
            ++heard;
        }
        const size_t outputs = cycle.output ? cycle.out().size() / cycle.frames() : 0;
        for (size_t i = 0; i < outputs * cycle.frames(); ++i) {
            const double time = cycle.outputTime->sampleTime + static_cast<double>(i / outputs);
            cycle.out()[i] = static_cast<float>(std::fmod(time, length)) * step;
        }
        see(cycle);
    }

    HALModel& _hal;
    const AudioObjectID _deviceID;
    std::optional<RunningProc> _proc; // last: its callback uses the other fields
};
