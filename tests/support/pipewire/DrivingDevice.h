#pragma once

#include "Ramp.h"
#include "TestClient.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <pipewire/stream.h>
#include <spa/node/io.h>
#include <string>
#include <thread>

/// A stereo device that drives a graph by a separate clock: a sink that checks the ramps it receives
/// (Ramp.h), one in each channel, or a source that generates one.
/// Threads: one; it runs two threads internally.
class DrivingDevice {
public:
    enum class Direction { Sink, Source };

    struct Options {
        double partsPerMillion = 0; ///< clock error; positive: fast
        /// Devices with the same clock name share a clock and need the same error. Empty: a separate clock.
        std::string clockName{};
        /// Drives the devices of this node.group and starts a cycle only when all nodes have finished the
        /// previous one: no node is ever late on a busy machine; the clock slows instead. Empty: none.
        std::string patientGroup{};
    };

    DrivingDevice(const std::string& remote, const std::string& name, Direction direction, Options options);
    ~DrivingDevice();

    /// Changes the device's description.
    void rename(const char* description);
    /// Advances the clock by this many cycles, in which no node is called, before its next cycle.
    void skip(uint32_t cycles) noexcept { _skip += cycles; }

    RampCheck received; ///< a sink's

    /// A ramp value and its time by this device's clock: when the last cycle's first frame was taken or is
    /// played.
    struct Passage {
        double number = 0, nanoseconds = 0;
    };
    Passage lastPassage() const
    {
        const std::scoped_lock lock(_mutex);
        return _passage;
    }

private:
    using Nanoseconds = std::chrono::duration<double, std::nano>;

    static void _stateChanged(void* data, pw_stream_state before, pw_stream_state now, const char* error);
    static void _ioChanged(void* data, uint32_t id, void* area, uint32_t size);
    static void _process(void* data);

    void _connect(const std::string& name);
    void _notePassage(float sample);
    void _drive();
    Nanoseconds _driveCycle();
    void _waitForNodes();
    bool _isPatient() const noexcept { return !_options.patientGroup.empty(); }

    TestClient _client;
    const Direction _direction;
    const Options _options;
    const double _ratio; // device clock rate / nominal rate
    pw_stream* _stream = nullptr;
    pw_stream_events _events{};
    spa_hook _listener{};
    std::atomic<spa_io_clock*> _clock{nullptr};
    std::atomic<spa_io_position*> _position{nullptr};
    std::atomic<bool> _streaming{false}, _ended{false};
    std::atomic<uint32_t> _skip{0}; // cycles; taken by the driver thread before its next cycle
    // Of the clock's next cycle: one period after the last, even if that waited for nodes.
    Nanoseconds _time{};
    uint64_t _framesDriven = 0, _lastDuration = 0;
    uint64_t _samplesGiven = 0;
    mutable std::mutex _mutex; // guards the fields below
    std::condition_variable _cycleEnded;
    uint32_t _pendingEnds = 0; // cycles started and not yet ended
    Passage _passage;
    std::thread _driver;
};
