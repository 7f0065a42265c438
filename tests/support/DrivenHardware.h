#pragma once

#include "HALHardwareDriver.h"
#include "SimulatedDeviceBuilder.h"
#include "SimulatedDeviceDescription.h"

#include <atomic>
#include <map>
#include <string>
#include <vector>

/// Devices whose cycles the test makes itself, with lists and times of its own choice.
class DrivenHardware final : public HALHardwareDriver {
public:
    static CXRef<DrivenHardware> init() { return CXRef<DrivenHardware>::adopt(new DrivenHardware); }

    std::atomic<double> sampleRate{48000.0}; ///< of every device, as its IO thread reads it
    /// Runs a cycle of the device that was started last, as its hardware would; without effect after its stop.
    AudioDeviceIOBlock callback;
    std::atomic<uint32_t> starts{0};                           ///< tried so far
    std::atomic<HALStatus> startStatus{kAudioHardwareNoError}; ///< of the next ones

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
            ++_hardware.starts;
            if (_hardware.startStatus)
                return _hardware.startStatus;
            const auto run = _run = CXRef<Run>::adopt(new Run);
            run->prepare(*table, _channels(HALDirection::Input), _channels(HALDirection::Output));
            _hardware.callback = [this, table, run](const AudioTimeStamp* now, const AudioBufferList* input,
                                                    const AudioTimeStamp* inputTime, AudioBufferList* output,
                                                    const AudioTimeStamp* outputTime) {
                if (run->isOver)
                    return;
                HALCycle cycle;
                cycle.now = *now;
                cycle.inputTime = inputTime ? *inputTime : *now;
                cycle.outputTime = outputTime ? *outputTime : *now;
                const std::vector<HALStreamBlock> in = _blocks(input, cycle.frameCount);
                const std::vector<HALStreamBlock> out = _blocks(output, cycle.frameCount);
                cycle.input = in;
                cycle.output = out;
                run->prepare(*table, _channelsOf(in), _channelsOf(out));
                table->setTiming(_hardware.sampleRate, cycle.frameCount);
                table->runCycle(cycle);
            };
            return kAudioHardwareNoError;
        }
        void stopIO() override
        {
            if (_run)
                _run->isOver = true;
        }

    private:
        /// From one start to its stop.
        struct Run : CXObject {
            std::atomic<bool> isOver{false};
            std::vector<uint32_t> inputs, outputs; // of each stream, as prepared

            void prepare(HALIOProcTable& table, std::vector<uint32_t> newInputs,
                         std::vector<uint32_t> newOutputs)
            {
                if (inputs == newInputs && outputs == newOutputs)
                    return;
                inputs = std::move(newInputs);
                outputs = std::move(newOutputs);
                table.prepare(inputs, outputs, 8192);
            }
        };

        std::vector<uint32_t> _channels(HALDirection direction) const
        {
            std::vector<uint32_t> channels;
            for (const HALStreamState& stream : _state[direction].streams)
                channels.push_back(stream.channelCount);
            return channels;
        }
        static std::vector<uint32_t> _channelsOf(const std::vector<HALStreamBlock>& blocks)
        {
            std::vector<uint32_t> channels;
            for (const HALStreamBlock& block : blocks)
                channels.push_back(block.channelCount);
            return channels;
        }
        static std::vector<HALStreamBlock> _blocks(const AudioBufferList* list, uint32_t& frameCount)
        {
            std::vector<HALStreamBlock> blocks;
            for (uint32_t stream = 0; list && stream < list->numberBuffers; ++stream) {
                const AudioBuffer& buffer = *(&list->buffers[0] + stream);
                blocks.push_back({static_cast<float*>(buffer.data), buffer.numberChannels});
                frameCount =
                    buffer.dataByteSize / (buffer.numberChannels * static_cast<uint32_t>(sizeof(float)));
            }
            return blocks;
        }

        DrivenHardware& _hardware;
        const HALDeviceState _state;
        CXRef<Run> _run;
    };

    DrivenHardware() = default;
    ~DrivenHardware() override = default;

    HALDriverSink* _sink = nullptr;
    std::map<std::string, CXRef<Device>> _devices;
};
