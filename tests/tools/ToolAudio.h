#pragma once

#include "FilePlayer.h"
#include "FileRecorder.h"
#include "LoopPatch.h"
#include "Text.h"

#include <dxr/DXRDeviceManager.h>
#include <dxr/simulated.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

using enum HALDirection;

/// Tests the tool's audio on the stepped clock, where every sample can be compared.
class ToolAudio : public testing::Test {
protected:
    static constexpr int64_t second = 1'000'000'000; // ticks of the stepped clock

    static SimulatedHardware& hardware()
    {
        static const CXRef<SimulatedHardware> backend = [] {
            CXRef<SimulatedHardware> made = SimulatedHardware::init(SimulatedClock::Stepped);
            HALSetHardwareDriver(made);
            return made;
        }();
        return *backend;
    }
    ~ToolAudio() override { unplugAll(); }

    void unplugAll()
    {
        for (const char* uid : {"in", "in2", "out", "out2"})
            hal.unplug(uid);
        settle();
        played.clear();
        alsoPlayed.clear();
    }
    /// Waits until the manager and every runner have processed all changes.
    void settle()
    {
        for (int round = 0; round < 3; ++round) {
            hal.settle();
            DXRDeviceManager::queue().sync([] {});
        }
    }
    DeviceSelection plugged(const SimulatedDeviceBuilder& device, const std::string& text,
                            HALDirection direction)
    {
        hal.plug(device);
        settle();
        return DeviceSelection::find(text, direction);
    }
    /// A device that records its first output channel in `into`.
    static SimulatedDeviceBuilder player(const std::string& uid, std::vector<float>& into)
    {
        return aDevice().uid(uid).outputs(2).clockDomain(1).playsInto(SimulatedSink(
            [&into](uint64_t, uint32_t frames, uint32_t channels, double, const float* samples) {
                const CXRealtimeExemption exemption("the test keeps what was played");
                for (uint32_t frame = 0; samples && frame < frames; ++frame)
                    into.push_back(samples[frame * channels]);
            }));
    }
    static SimulatedDeviceBuilder ramp(const std::string& uid)
    {
        return aDevice().uid(uid).inputs(2).clockDomain(1).hears(simulatedRamp());
    }
    /// Starts the session and waits until it has settled.
    template <class Part> void start(RunnerSession& session, const CXRef<Part>& part)
    {
        part->addTo(session);
        ASSERT_TRUE(session.start());
        while (!session.isCounting())
            advance(session, second / 20);
    }
    CXRef<LoopPatch> startLoop(RunnerSession& session, const std::vector<DeviceSelection>& inputs,
                               const std::vector<DeviceSelection>& outputs)
    {
        const CXRef<LoopPatch> patch = LoopPatch::initWithSelections(inputs, outputs);
        start(session, patch);
        patch->setOpen();
        return patch;
    }
    CXRef<FileRecorder> startRecorder(RunnerSession& session, const std::vector<DeviceSelection>& inputs)
    {
        const CXRef<FileRecorder> recorder = FileRecorder::initWithInputs(inputs);
        start(session, recorder);
        recorder->open(session.sampleRate());
        return recorder;
    }
    /// Advances in small steps, so that the session's polls miss nothing.
    void advance(RunnerSession& session, int64_t ticks)
    {
        for (; ticks > 0; ticks -= second / 10) {
            hal.advance(static_cast<uint64_t>(std::min(ticks, second / 10)));
            session.poll();
        }
    }
    static std::vector<int64_t> rampOf(const std::vector<float>& samples)
    {
        std::vector<int64_t> ramp;
        for (const float sample : samples)
            if (sample != 0.0F || !ramp.empty())
                ramp.push_back(static_cast<int64_t>(sample * 16777216.0F));
        return ramp;
    }
    static uint64_t jumpsIn(const std::vector<int64_t>& ramp)
    {
        uint64_t jumps = 0;
        for (size_t i = 1; i < ramp.size(); ++i)
            jumps += ramp[i] != ramp[i - 1] + 1;
        return jumps;
    }

    SimulatedHardware& hal = hardware();
    Interrupts interrupts;
    std::vector<float> played, alsoPlayed;
};
