// What does a cycle of the engine cost, compared with moving the same samples by a plain loop or memcpy? The
// nodes do nothing with their buffers. The simulated hardware's callback is called directly and timed from
// the call to its return. A cycle of 64 frames at 48 kHz lasts 1.33 million nanoseconds.

#include "Contest.h"
#include "DXRAudioContext.h"
#include "DXRDeviceManager.h"
#include "DrivenHardware.h"
#include "QDL.h"
#include "RunnerIO.h"

#include <array>
#include <cstring>
#include <memory>

namespace {

DrivenHardware& backend()
{
    static const CXRef<DrivenHardware> driven = [] {
        CXRef<DrivenHardware> made = DrivenHardware::init();
        HALSetHardwareDriver(made);
        return made;
    }();
    return *driven;
}

enum class Directions { Output, Duplex };

/// A device with one stream per direction and nodes on all of its channels, and the buffer lists of its
/// cycles.
class Engine {
public:
    Engine(uint32_t channels, uint32_t frames, size_t nodeCount, Directions directions, double deviceRate)
        : _uid("bench " + std::to_string(++_devices)), _samples{std::vector<float>(size_t{channels} * frames,
                                                                                   0.25F),
                                                                std::vector<float>(size_t{channels} * frames)}
    {
        backend().sampleRate = deviceRate;
        backend().plug(
            aDevice().uid(_uid).inputs(channels).outputs(channels).bufferFrameSize(frames).sampleRate(
                deviceRate));
        backend().settle();
        DXRDeviceManager& manager = DXRDeviceManager::sharedDeviceManager();
        DXRDeviceManager::queue().sync([] {});
        _io.frameCount.requested = frames;
        _io.sampleRate.requested = 48000;
        std::vector<uint32_t> all;
        for (uint32_t channel = 1; channel <= channels; ++channel)
            all.push_back(channel);
        DXRAudioContext::Viables viables;
        for (size_t i = 0; i < nodeCount; ++i) {
            const bool isInput = directions == Directions::Duplex && i % 2 == 0;
            const auto node = DXRDeviceNode::nodeWithDevice(manager.deviceWithDeviceUID(_uid, isInput), all,
                                                            [](uint64_t, DXRBuffer&) {});
            _nodes[isInput ? 0 : 1].push_back(node);
            viables.insert(node);
        }
        _context = DXRAudioContext::initWithIO(_io, nullptr, _nodes, viables,
                                               DXRAudioContext::deviceUIDsOf(_nodes, viables));
        _io.queue->dispatchSync([&] { _context->start(); });
        _callback = backend().callback;
        for (size_t direction = 0; direction < 2; ++direction) {
            _times[direction].flags = kAudioTimeStampSampleTimeValid;
            _lists[direction] = {1, {{channels, channels * frames * 4, _samples[direction].data()}}};
        }
        cycle(); // reads the rate and creates the converter
    }
    ~Engine()
    {
        _io.queue->dispatchSync([&] { _context->stop(); });
    }
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    void cycle()
    {
        _times[0].sampleTime += 1;
        _times[1].sampleTime += 1;
        _callback(&_times[0], &_lists[0], &_times[0], &_lists[1], &_times[1]);
    }

private:
    static inline int _devices = 0;

    const std::string _uid;
    RunnerIO _io{CXDispatchQueue::init()};
    DXRDeviceNodes _nodes;
    CXRef<DXRAudioContext> _context;
    AudioDeviceIOBlock _callback;
    std::array<std::vector<float>, 2> _samples;
    std::array<AudioBufferList, 2> _lists{};
    std::array<AudioTimeStamp, 2> _times{};
};

/// Only the path from the hardware to an empty callback, which the engine's figures include.
class Bare {
public:
    Bare(uint32_t channels, uint32_t frames) : _samples(size_t{channels} * frames)
    {
        const std::string uid = "bare " + std::to_string(++_devices);
        backend().plug(aDevice().uid(uid).inputs(channels).outputs(channels).bufferFrameSize(frames));
        backend().settle();
        const AudioObjectID device = QDLAudioDeviceIDFromUID(uid);
        AudioDeviceIOProcID proc = nullptr;
        AudioDeviceCreateIOProcIDWithBlock(&proc, device, nullptr, [](auto...) {});
        AudioDeviceStart(device, proc);
        _callback = backend().callback;
        _time.flags = kAudioTimeStampSampleTimeValid;
        _list = {1, {{channels, channels * frames * 4, _samples.data()}}};
    }
    void cycle()
    {
        _time.sampleTime += 1;
        _callback(&_time, &_list, &_time, &_list, &_time);
    }

private:
    static inline int _devices = 0;

    std::vector<float> _samples;
    AudioDeviceIOBlock _callback;
    AudioBufferList _list{};
    AudioTimeStamp _time{};
};

/// Moves the same samples without an engine, node by node.
class Mover {
public:
    Mover(uint32_t channels, uint32_t frames, size_t nodeCount)
        : _channels(channels), _frames(frames), _device(size_t{channels} * frames),
          _nodes(nodeCount, std::vector<float>(size_t{channels} * frames, 0.5F))
    {}
    void loop()
    {
        for (const std::vector<float>& node : _nodes) {
            for (uint32_t c = 0; c < _channels; ++c)
                for (uint32_t k = 0; k < _frames; ++k)
                    _device[k * _channels + c] = node[k * _channels + c];
            asm volatile("" : : "r"(_device.data()) : "memory");
        }
    }
    void copy()
    {
        for (const std::vector<float>& node : _nodes) {
            std::memcpy(_device.data(), node.data(), node.size() * sizeof(float));
            asm volatile("" : : "r"(_device.data()) : "memory");
        }
    }

private:
    const uint32_t _channels, _frames;
    std::vector<float> _device;
    const std::vector<std::vector<float>> _nodes;
};

void compare(size_t nodeCount, uint32_t frames, Directions directions)
{
    FigureTable table("engine: ns a cycle, " + std::to_string(nodeCount) + " nodes" +
                      (directions == Directions::Duplex ? ", half of them inputs, " : ", ") +
                      std::to_string(frames) + " frames at 48 kHz");
    for (const uint32_t channels : {2U, 8U, 32U}) {
        Engine plain(channels, frames, nodeCount, directions, 48000);
        Engine converting(channels, frames, nodeCount, directions, 44100);
        Bare bare(channels, frames);
        Mover mover(channels, frames, nodeCount);
        constexpr uint64_t cycles = 100;
        Contest contest;
        const auto add = [&contest](const char* name, auto work) {
            contest.add(name, [work] {
                for (uint64_t i = 0; i < cycles; ++i)
                    work();
                return cycles;
            });
        };
        add("engine", [&plain] { plain.cycle(); });
        add("of it, the way to the callback", [&bare] { bare.cycle(); });
        add("plain loop", [&mover] { mover.loop(); });
        add("memcpy", [&mover] { mover.copy(); });
        add("engine, 44.1 kHz device", [&converting] { converting.cycle(); });
        table.addColumn(std::to_string(channels) + " channels", contest.names(), contest.run());
    }
    table.print("engine", 0);
}

} // namespace

int main()
{
    for (const uint32_t frames : {64U, 512U}) {
        compare(1, frames, Directions::Output);
        compare(2, frames, Directions::Duplex);
        compare(4, frames, Directions::Output);
    }
}
