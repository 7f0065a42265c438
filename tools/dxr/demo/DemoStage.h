#pragma once

#include <array>
#include <atomic>
#include <dxr/simulated.h>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

/// Records the first channel of a simulated output, in gapless blocks of a tenth of a second.
/// Threads:   the sink on the IO thread of one device at a time; all else on one other thread.
/// Real time: the sink.
class DemoRecording {
public:
    static constexpr double blockSeconds = 0.1;
    struct Block {
        uint64_t hostTicks; ///< when its first sample was played
        std::span<const float> samples;
    };

    /// Records up to `seconds` at `sampleRate` Hz.
    DemoRecording(double sampleRate, double seconds);

    /// The sink for a simulated device. This object must outlive the devices that play into it.
    SimulatedSink sink()
    {
        return [this](uint64_t firstFrame, uint32_t frameCount, uint32_t channels, double,
                      const float* samples) {
            if (samples)
                _keep(firstFrame, frameCount, channels, samples);
        };
    }
    std::vector<Block> blocks() const
    {
        std::vector<Block> blocks;
        for (size_t block = 0; block < _blockCount.load(std::memory_order_acquire); ++block)
            blocks.push_back({_blockTicks[block], {&_samples[block * _blockFrames], _blockFrames}});
        return blocks;
    }

private:
    void _keep(uint64_t sampleTime, uint32_t frameCount, uint32_t channels, const float* samples) noexcept
        CX_REALTIME;

    const double _sampleRate;
    const size_t _blockFrames, _maxBlocks;
    const std::unique_ptr<float[]> _samples; // uninitialised, so that pages are allocated when written
    const std::unique_ptr<uint64_t[]> _blockTicks;
    // Used by the sink only.
    uint64_t _nextSampleTime = 0; // the device's, after the last cycle
    size_t _filledFrames = 0;     // of the incomplete block
    // Stored by the sink with release after a block is complete; pairs with the reader's acquire.
    std::atomic<size_t> _blockCount{0};
};

/// The demo's simulated computer: a microphone that records a steady tone, and two outputs, each with a
/// different rate and clock. A script disconnects the headphones and connects them at another port, then
/// disconnects and reconnects all devices.
/// Threads: one at a time; the devices' IO threads generate the tone and record the outputs.
class DemoStage {
public:
    enum Device : size_t { Microphone, Monitors, Headphones };
    static constexpr std::array devices{Microphone, Monitors, Headphones};
    static constexpr std::array outputs{Monitors, Headphones};
    static constexpr double toneFrequency = 997.0; ///< Hz, measured by the microphone's clock
    static constexpr double toneAmplitude = 0.5;

    struct Facts {
        const char *name, *uid;
        HALDirection direction;
        double sampleRate;      ///< Hz
        double partsPerMillion; ///< how much faster than nominal its clock runs
    };
    static constexpr Facts facts[] = {
        {"Stage Microphone", "demo-microphone", HALDirection::Input, 48000.0, 80.0},
        {"Studio Monitors", "demo-monitors", HALDirection::Output, 44100.0, -60.0},
        {"Headphones", "demo-headphones", HALDirection::Output, 96000.0, 150.0},
    }; ///< by Device

    struct Step {
        double seconds; ///< since the start
        Device device;
        bool isPlug; ///< true: plug; false: unplug
    };
    static constexpr size_t stepCount = 8;

    /// Makes it the process's hardware, with all devices connected. The script takes `seconds`.
    explicit DemoStage(double seconds);
    /// Audio must have stopped.
    ~DemoStage();

    /// Performs and returns the script's next step; null if none is due `seconds` after the start.
    std::optional<Step> performNext(double seconds);

    /// The device's current unique ID. That of the headphones changes with their port.
    std::string uidOf(Device device) const;
    const DemoRecording& recordingOf(Device output) const { return *_recordings[output]; }

private:
    void _plug(Device device);
    void _unplug(Device device) { _hardware->unplug(uidOf(device)); }
    void _setLocation(uint32_t location);

    const CXRef<SimulatedHardware> _hardware;
    const double _seconds;
    size_t _stepsDone = 0;
    uint32_t _location = 0;                                                 // of the headphones' USB port
    std::array<std::unique_ptr<DemoRecording>, devices.size()> _recordings; // null for the microphone
};
