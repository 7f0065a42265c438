#pragma once

#include "TestClient.h"

#include <atomic>
#include <mutex>
#include <pipewire/stream.h>
#include <spa/node/io.h>
#include <string>
#include <thread>

/// A stereo device with a clock of its own that is fast or slow by some parts per million: a sink that checks the
/// ramps it receives, one in each channel, or a source that gives one. The ramp counts frames in steps of 2^-24, from 1.
/// Threads: one; it runs two of its own.
class DriftingDevice {
public:
    enum class Direction { Sink, Source };

    /// Devices of one `clockName` report one clock, and must drift alike; each has its own if empty.
    DriftingDevice(const std::string& remote, const std::string& name, Direction direction,
                   double partsPerMillion, const std::string& clockName = "");
    ~DriftingDevice();
    DriftingDevice(const DriftingDevice&) = delete;
    DriftingDevice& operator=(const DriftingDevice&) = delete;

    /// Frames of the ramp in channel 0 or 1 that came, and how often one did not follow the one before.
    uint64_t framesReceived(size_t channel = 0) const noexcept { return _received[channel].frames; }
    uint64_t breaks(size_t channel = 0) const noexcept { return _received[channel].breaks; }

    /// A frame of the ramp, and when it was taken or is played by this device's clock: the first of its last cycle.
    struct Passage {
        double number = 0, nanoseconds = 0;
    };
    Passage lastPassage() const
    {
        const std::scoped_lock lock(_passageMutex);
        return _passage;
    }

private:
    static void _stateChanged(void* data, pw_stream_state before, pw_stream_state now, const char* error);
    static void _ioChanged(void* data, uint32_t id, void* area, uint32_t size);
    static void _process(void* data);

    struct Received {
        int64_t last = 0;
        std::atomic<uint64_t> frames{0}, breaks{0};
    };

    void _receive(const float* samples, uint32_t frameCount) noexcept;
    void _give(float* samples, uint32_t frameCount) noexcept;
    void _notePassage(float sample);
    void _drive();
    double _driveCycle(double nowNanoseconds) noexcept;

    TestClient _client;
    const std::string _name, _clockName;
    const Direction _direction;
    const double _ratio; // device frames per nominal frame
    pw_stream* _stream = nullptr;
    spa_hook _listener{};
    std::atomic<spa_io_clock*> _clock{nullptr};
    std::atomic<spa_io_position*> _position{nullptr};
    std::atomic<bool> _streaming{false};
    std::atomic<bool> _ended{false};
    uint64_t _framesDriven = 0;
    uint64_t _framesGiven = 0;
    Received _received[2];
    mutable std::mutex _passageMutex;
    Passage _passage;
    std::thread _driver;
};
