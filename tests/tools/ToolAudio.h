#pragma once

#include "FilePlayer.h"
#include "FileRecorder.h"
#include "LoopPatch.h"
#include "ToolFailure.h"

#include <dxr/DXRDeviceManager.h>
#include <dxr/simulated.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <thread>

using enum HALDirection;

// The tool's audio on a stepped clock: what should not be lost is compared sample by sample.

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
    ~ToolAudio() override
    {
        for (const char* uid : {"in", "in2", "out", "out2"})
            hal.unplug(uid);
        settle();
    }

    /// Waits until the manager, and with it every runner, has heard of all changes.
    void settle()
    {
        for (int round = 0; round < 3; ++round) {
            hal.settle();
            DXRDeviceManager::queue().sync([] {});
        }
    }
    /// Waits until the runner has started so many new contexts, as work of its own queue.
    void settle(RunnerSession& session, uint64_t restarts)
    {
        settle();
        for (int look = 0; look < 10'000; ++look) {
            session.poll();
            if (session.statistics().restarts() == restarts)
                return;
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
        FAIL() << session.statistics().restarts() << " restarts";
    }
    DeviceSelection plugged(const SimulatedDeviceBuilder& device, const std::string& text,
                            HALDirection direction)
    {
        hal.plug(device);
        settle();
        return DeviceSelection::find(text, direction);
    }
    /// The description of a device that plays into `played`, first channel only.
    SimulatedDeviceBuilder player(const std::string& uid, std::vector<float>& into)
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
    /// Lets the time pass that the devices take to settle, and then counts.
    void begin(RunnerSession& session)
    {
        while (!session.isSettled()) {
            hal.advance(second / 20);
            session.poll();
        }
        session.beginCounting();
    }
    /// Lets time pass in small steps, so that the session sees everything.
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
    static uint64_t resynchronisations(const RunnerSession& session)
    {
        uint64_t all = 0;
        for (const SessionDevice& device : session.devices())
            all += device.resynchronisations() + device.lostFrames();
        return all;
    }

    SimulatedHardware& hal = hardware();
    Interrupts interrupts;
    std::vector<float> played, alsoPlayed;
};
