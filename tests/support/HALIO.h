#pragma once

#include "Eventually.h"
#include "HALReads.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <mutex>

// Functions and classes that run devices in tests and record their notifications.

inline constexpr uint32_t input = kAudioObjectPropertyScopeInput;
inline constexpr uint32_t output = kAudioObjectPropertyScopeOutput;

/// Waits for a device and returns its ID; 0 if it does not appear.
inline AudioObjectID waitForDevice(HALModel& hal, const std::string& uid)
{
    AudioObjectID device = kAudioObjectUnknown;
    eventually([&] { return (device = deviceWithUID(hal, uid)) != kAudioObjectUnknown; });
    return device;
}

/// Reads of the model that a fixture tests.
struct ModelReads {
    template <class Value>
    std::optional<Value> read(AudioObjectID object, uint32_t selector,
                              uint32_t scope = kAudioObjectPropertyScopeGlobal, uint32_t element = 0)
    {
        return readValue<Value>(*hal, object, at(selector, scope, element));
    }
    /// Waits until an object's property has this value. Returns false on timeout.
    template <class Value>
    bool becomes(AudioObjectID object, uint32_t selector, Value value,
                 uint32_t scope = kAudioObjectPropertyScopeGlobal)
    {
        return eventually([&] { return read<Value>(object, selector, scope) == value; });
    }

    CXRef<HALModel> hal;
};

/// A model over simulated hardware on the stepped clock.
class SimulatedModel : public testing::Test {
protected:
    const CXRef<SimulatedHardware> hal = SimulatedHardware::init(SimulatedClock::Stepped);
    const CXRef<HALModel> model = HALModel::initWithDriver(hal);
};

inline const AudioBuffer& bufferOf(const AudioBufferList* list, uint32_t stream)
{
    return *(&list->buffers[0] + stream); // by pointer: the array is declared with one element
}

/// Returns the number of channels of all streams in one direction.
inline uint32_t channelsOf(HALModel& hal, AudioObjectID device, uint32_t scope)
{
    const auto bytes = readList<std::byte>(hal, device, at(kAudioDevicePropertyStreamConfiguration, scope));
    const auto* const list = reinterpret_cast<const AudioBufferList*>(bytes.data());
    uint32_t channels = 0;
    for (uint32_t stream = 0; !bytes.empty() && stream < list->numberBuffers; ++stream)
        channels += bufferOf(list, stream).numberChannels;
    return channels;
}

/// One call of an IO callback.
struct IOCycle {
    const AudioTimeStamp& now;
    const AudioBufferList* input;
    const AudioTimeStamp* inputTime; // null without an input
    AudioBufferList* output;
    const AudioTimeStamp* outputTime;

    static std::span<float> samplesOf(const AudioBufferList* list, uint32_t stream)
    {
        const AudioBuffer& buffer = bufferOf(list, stream);
        return {static_cast<float*>(buffer.data), buffer.data ? buffer.dataByteSize / sizeof(float) : 0};
    }
    std::span<float> in(uint32_t stream = 0) const { return samplesOf(input, stream); }
    std::span<float> out(uint32_t stream = 0) const { return samplesOf(output, stream); }
    /// Frames of the first stream.
    uint32_t frames() const
    {
        const AudioBuffer& buffer = bufferOf(output ? output : input, 0);
        return buffer.dataByteSize / (buffer.numberChannels * static_cast<uint32_t>(sizeof(float)));
    }
};

/// Returns an IO callback that calls `body` in each cycle.
template <class Body> AudioDeviceIOBlock eachCycle(Body body)
{
    return [body = std::move(body)](const AudioTimeStamp* now, auto... buffersAndTimes) mutable {
        body(IOCycle{*now, buffersAndTimes...});
    };
}

/// Lock-free record of the cycles of one IO callback.
struct CycleWitness {
    std::atomic<uint64_t> cycles{0};
    std::atomic<uint64_t> backwards{0};  ///< sample times before the end of the preceding cycle
    std::atomic<uint64_t> lostFrames{0}; ///< gaps between consecutive cycles
    std::atomic<uint32_t> frames{0};     ///< of the last cycle
    std::atomic<double> sampleTime{-1.0}, rateScalar{0.0};

    void see(const IOCycle& cycle)
    {
        const double time = cycle.now.sampleTime;
        backwards += time < _next;
        lostFrames += _next >= 0.0 && time > _next ? static_cast<uint64_t>(time - _next) : 0;
        frames = cycle.frames();
        _next = time + frames;
        sampleTime = time;
        rateScalar = cycle.now.rateScalar;
        ++cycles;
    }
    /// Waits for more than `count` further cycles.
    bool waitForMore(uint64_t count = 10) const
    {
        return eventually([this, end = cycles + count] { return cycles > end; });
    }

private:
    double _next = -1.0; // used only by the IO thread
};

/// Returns an IO callback that only records its cycles in `witness`.
inline AudioDeviceIOBlock witnessing(CycleWitness& witness)
{
    return eachCycle([&witness](const IOCycle& cycle) { witness.see(cycle); });
}

inline const AudioDeviceIOBlock idle = [](auto...) {};

/// Creates an IO callback, and expects this result of its start; nullopt: any. The destructor destroys it.
class RunningProc {
public:
    RunningProc(HALModel& hal, AudioObjectID device, const AudioDeviceIOBlock& block,
                std::optional<HALStatus> started = kAudioHardwareNoError)
        : _hal(hal), _device(device)
    {
        EXPECT_EQ(_hal.createIOProc(device, block, id), kAudioHardwareNoError);
        const HALStatus status = _hal.start(device, id);
        EXPECT_EQ(status, started.value_or(status));
    }
    ~RunningProc() { _hal.destroyIOProc(_device, id); }
    RunningProc(const RunningProc&) = delete;

    AudioDeviceIOProcID id = nullptr;

private:
    HALModel& _hal;
    const AudioObjectID _device;
};

inline constexpr AudioObjectPropertyAddress anyAddress{kAudioObjectPropertySelectorWildcard,
                                                       kAudioObjectPropertyScopeWildcard,
                                                       kAudioObjectPropertyElementWildcard};

/// Records the notifications of one object.
class RecordingListener {
public:
    RecordingListener(HALModel& hal, AudioObjectID object, AudioObjectPropertyAddress address,
                      CXRef<dxr::WorkQueue> queue = nullptr, std::function<void()> whenCalled = {})
        : _hal(hal), _object(object), _address(address),
          _whenCalled(std::move(whenCalled)), _listener{nullptr, nullptr,
                                                        [this](auto... addresses) { _record(addresses...); },
                                                        std::move(queue)}
    {
        EXPECT_EQ(_hal.addListener(_object, _address, _listener), kAudioHardwareNoError);
    }
    ~RecordingListener() { remove(); }

    HALStatus remove() { return _hal.removeListener(_object, _address, _listener); }
    std::vector<AudioObjectPropertyAddress> announced() const
    {
        const std::scoped_lock lock(_mutex);
        return _announced;
    }
    size_t count() const { return announced().size(); }
    bool includes(const AudioObjectPropertyAddress& address) const
    {
        return std::ranges::count(announced(), address) > 0;
    }
    void clear()
    {
        const std::scoped_lock lock(_mutex);
        _announced.clear();
    }

private:
    void _record(uint32_t count, const AudioObjectPropertyAddress* addresses)
    {
        {
            const std::scoped_lock lock(_mutex);
            _announced.insert(_announced.end(), addresses, addresses + count);
        }
        if (_whenCalled)
            _whenCalled();
    }

    HALModel& _hal;
    const AudioObjectID _object;
    const AudioObjectPropertyAddress _address;
    const std::function<void()> _whenCalled;
    mutable std::mutex _mutex;
    std::vector<AudioObjectPropertyAddress> _announced;
    const HALListener _listener;
};

/// Creates an aggregate of these devices; the first is the clock device unless `description` has a "master".
inline AudioObjectID makeAggregate(HALModel& hal, const std::vector<std::string>& uids,
                                   CXPlist description = {{"uid", "aggregate"}})
{
    description["subdevices"] = CXPlist::array();
    for (const std::string& uid : uids)
        description["subdevices"].push_back({{"uid", uid}, {"drift", 1}});
    AudioObjectID device = kAudioObjectUnknown;
    EXPECT_EQ(hal.createAggregateDevice(*CXValue::initWithPlist(description), device), kAudioHardwareNoError);
    return device;
}

/// Reads and sets properties of every device, and starts and stops it, until `isDone`.
inline void useDevices(HALModel& hal, const std::function<bool()>& isDone)
{
    for (uint32_t muted = 0; !isDone(); muted ^= 1U)
        for (const AudioObjectID device : readDevices(hal)) {
            readText(hal, device, at(kAudioObjectPropertyName));
            channelsOf(hal, device, output);
            readValue<float>(hal, device, at(kAudioDevicePropertyVolumeScalar, output, 1));
            writeValue(hal, device, at(kAudioDevicePropertyMute, output), muted);
            AudioDeviceIOProcID proc = nullptr;
            if (hal.createIOProc(device, idle, proc) != kAudioHardwareNoError)
                continue;
            hal.start(device, proc);
            hal.stop(device, proc);
            hal.destroyIOProc(device, proc);
        }
}

inline std::vector<AudioAggregateSubDeviceStatus> subDeviceStatus(HALModel& hal, AudioObjectID aggregate)
{
    return readList<AudioAggregateSubDeviceStatus>(hal, aggregate,
                                                   at(kAudioAggregateDevicePropertySubDeviceStatus));
}
