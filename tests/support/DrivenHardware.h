#pragma once

#include "HALHardwareDriver.h"
#include "SimulatedDeviceBuilder.h"
#include "SimulatedDeviceDescription.h"

#include <algorithm>
#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <vector>

/// Devices whose cycles the test runs, with buffer lists and times of its choice, and whose results it sets.
class DrivenHardware final : public HALHardwareDriver {
public:
    static CXRef<DrivenHardware> init() { return CXRef<DrivenHardware>::adopt(new DrivenHardware); }

    std::atomic<double> sampleRate{48000.0}; ///< Hz; of every device, read by its IO thread
    /// Runs a cycle of the device that was started last; does nothing after that device's stop.
    AudioDeviceIOBlock callback;
    std::atomic<uint32_t> starts{0};                           ///< attempts so far
    std::atomic<HALStatus> startStatus{kAudioHardwareNoError}; ///< of the following starts
    /// Called when a device is asked to start or to change its rate; returns the result.
    std::function<HALStatus(HALDeadline)> whenAsked = [this](HALDeadline) { return startStatus.load(); };
    /// Called when devices are asked to start in one cycle, which fails.
    std::function<void(HALDeadline)> whenGrouped = [](HALDeadline) {};
    HALDriverSink* sink = nullptr;

    AudioObjectID plug(const SimulatedDeviceBuilder& builder)
    {
        const HALDeviceState state = builder.description().state;
        const auto device = CXRef<Device>::adopt(new Device(*this));
        _devices[state.uid] = device;
        return sink->deviceAdded(device, state);
    }
    void unplug(const std::string& uid)
    {
        if (auto device = _devices.extract(uid)) {
            device.mapped()->stopIO();
            sink->deviceRemoved(*device.mapped());
        }
    }
    CXRef<HALDeviceDriver> device(const std::string& uid) const { return _devices.at(uid); }
    void settle() { sink->settle(); }

    void start(HALDriverSink& newSink) override { sink = &newSink; }
    void stop() override {}

private:
    class Device final : public HALDeviceDriver {
    public:
        explicit Device(DrivenHardware& hardware) : _hardware(hardware) {}

        HALStatus setNominalSampleRate(double, HALDeadline deadline) override
        {
            return _hardware.whenAsked(deadline);
        }
        HALStatus startIO(const CXRef<HALIOProcTable>& table, HALDeadline deadline) override
        {
            ++_hardware.starts;
            if (const HALStatus status = _hardware.whenAsked(deadline))
                return status;
            const auto run = _run = CXRef<Run>::adopt(new Run);
            _hardware.callback = [this, table, run](const AudioTimeStamp* now, const AudioBufferList* input,
                                                    const AudioTimeStamp* inputTime, AudioBufferList* output,
                                                    const AudioTimeStamp* outputTime) {
                if (run->isOver)
                    return;
                const Streams in(input), out(output);
                if (in.channels != run->inputs || out.channels != run->outputs)
                    table->prepare(run->inputs = in.channels, run->outputs = out.channels, 8192);
                const HALCycle cycle{.now = *now,
                                     .inputTime = inputTime ? *inputTime : *now,
                                     .outputTime = outputTime ? *outputTime : *now,
                                     .frameCount = std::max(in.frameCount, out.frameCount),
                                     .input = in.blocks,
                                     .output = out.blocks};
                table->setTiming(_hardware.sampleRate, cycle.frameCount);
                table->runCycle(cycle);
            };
            return kAudioHardwareNoError;
        }
        HALStatus startTogether(std::span<const HALGroupMember>, const CXRef<HALIOProcTable>&,
                                HALDeadline deadline, CXRef<HALGroupIO>&) override
        {
            _hardware.whenGrouped(deadline);
            return kAudioHardwareUnspecifiedError;
        }
        void stopIO() override
        {
            if (_run)
                _run->isOver = true;
        }

    private:
        /// The time from a start to the matching stop.
        struct Run : CXObject {
            std::atomic<bool> isOver{false};
            std::vector<uint32_t> inputs, outputs; // channels of each stream, as prepared
        };
        /// The streams of one direction in a cycle.
        struct Streams {
            explicit Streams(const AudioBufferList* list)
            {
                for (uint32_t stream = 0; list && stream < list->numberBuffers; ++stream) {
                    const AudioBuffer& buffer = *(&list->buffers[0] + stream);
                    blocks.push_back({static_cast<float*>(buffer.data), buffer.numberChannels});
                    channels.push_back(buffer.numberChannels);
                    frameCount =
                        buffer.dataByteSize / (buffer.numberChannels * static_cast<uint32_t>(sizeof(float)));
                }
            }
            std::vector<HALStreamBlock> blocks;
            std::vector<uint32_t> channels;
            uint32_t frameCount = 0;
        };

        DrivenHardware& _hardware;
        CXRef<Run> _run;
    };

    DrivenHardware() = default;
    ~DrivenHardware() override = default;

    std::map<std::string, CXRef<Device>> _devices; // by UID
};
