#pragma once

#include "HALHardwareDriver.h"
#include "SimulatedDeviceBuilder.h"
#include "SimulatedDeviceDescription.h"

#include <atomic>
#include <map>
#include <vector>

/// Devices whose cycles the test makes itself, with lists and times of its own choice.
class DrivenHardware final : public HALHardwareDriver {
public:
    static CXRef<DrivenHardware> init() { return CXRef<DrivenHardware>::adopt(new DrivenHardware); }

    std::atomic<double> sampleRate{48000.0}; ///< of every device, as its IO thread reads it
    /// Runs a cycle of the device that was started last, as its hardware would; without effect after its stop.
    AudioDeviceIOBlock callback;
    uint32_t starts = 0; ///< so far
    HALStatus startStatus = kAudioHardwareNoError;

    void plug(const SimulatedDeviceBuilder& builder)
    {
        const HALDeviceState state = builder.description().state;
        const auto device = CXRef<Device>::adopt(new Device(*this, state));
        _devices[state.uid] = device;
        _sink->deviceAdded(device, state);
    }
    void unplug(const std::string& uid)
    {
        if (auto device = _devices.extract(uid)) {
            device.mapped()->stopIO();
            _sink->deviceRemoved(*device.mapped());
        }
    }
    void settle() { _sink->settle(); }

    void start(HALDriverSink& sink) override { _sink = &sink; }
    void stop() override {}

private:
    class Device final : public HALDeviceDriver {
    public:
        Device(DrivenHardware& hardware, HALDeviceState state) : _hardware(hardware), _state(std::move(state))
        {}

        HALStatus startIO(const CXRef<HALIOProcTable>& table, HALDeadline /*deadline*/) override
        {
            if (_hardware.startStatus)
                return _hardware.startStatus;
            table->prepare(_channels(HALDirection::Input), _channels(HALDirection::Output), 8192);
            const auto isOver = _isOver = CXRef<Flag>::adopt(new Flag);
            _hardware.callback = [this, table,
                                  isOver](const AudioTimeStamp* now, const AudioBufferList* input,
                                          const AudioTimeStamp* inputTime, AudioBufferList* output,
                                          const AudioTimeStamp* outputTime) {
                if (isOver->value)
                    return;
                HALStreamBlock in{}, out{};
                HALCycle cycle;
                cycle.now = *now;
                cycle.inputTime = inputTime ? *inputTime : *now;
                cycle.outputTime = outputTime ? *outputTime : *now;
                cycle.input = _blocks(input, in, cycle.frameCount);
                cycle.output = _blocks(output, out, cycle.frameCount);
                table->setTiming(_hardware.sampleRate, cycle.frameCount);
                table->runCycle(cycle);
            };
            ++_hardware.starts;
            return kAudioHardwareNoError;
        }
        void stopIO() override
        {
            if (_isOver)
                _isOver->value = true;
        }

    private:
        struct Flag : CXObject {
            std::atomic<bool> value{false};
        };

        std::vector<uint32_t> _channels(HALDirection direction) const
        {
            std::vector<uint32_t> channels;
            for (const HALStreamState& stream : _state[direction].streams)
                channels.push_back(stream.channelCount);
            return channels;
        }
        /// The one stream of the list.
        static std::span<const HALStreamBlock> _blocks(const AudioBufferList* list, HALStreamBlock& block,
                                                       uint32_t& frameCount)
        {
            if (!list)
                return {};
            const AudioBuffer& buffer = list->buffers[0];
            block = {static_cast<float*>(buffer.data), buffer.numberChannels};
            frameCount = buffer.dataByteSize / (buffer.numberChannels * static_cast<uint32_t>(sizeof(float)));
            return {&block, 1};
        }

        DrivenHardware& _hardware;
        const HALDeviceState _state;
        CXRef<Flag> _isOver;
    };

    DrivenHardware() = default;
    ~DrivenHardware() override = default;

    HALDriverSink* _sink = nullptr;
    std::map<std::string, CXRef<Device>> _devices;
};
