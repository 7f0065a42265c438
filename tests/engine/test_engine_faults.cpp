// Runners in real time, with devices that appear and disappear.

#include "CXRealtime.h"
#include "DXRDeviceManager.h"
#include "DXRDeviceRunner.h"
#include "Eventually.h"
#include "HALReads.h"
#include "MainQueue.h"
#include "Random.h"
#include "simulated.h"

#include <gtest/gtest.h>

#include <atomic>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr uint32_t frames = 64;
constexpr double rate = 48000;

SimulatedHardware& backend()
{
    static const auto only = installed(SimulatedHardware::init(SimulatedClock::RealTime));
    return *only;
}

std::string uidOf(uint32_t i)
{
    return "device " + std::to_string(i);
}

void plug(uint32_t i, bool isHidden = false)
{
    auto builder = aDevice().uid(uidOf(i)).inputs(2).outputs(2).bufferFrameSize(frames).drift(i * 50.0);
    builder.sampleRates({44100, rate}).sampleRate(i % 2 == 0 ? rate : 44100).hidden(isHidden);
    backend().plug(builder);
}
CXRef<DXRDevice> device(uint32_t i, bool isInput)
{
    return DXRDeviceManager::sharedDeviceManager().deviceWithDeviceUID(uidOf(i), isInput);
}

/// Checks that calls of IO blocks neither overlap nor come while closed; counts steps of their time back.
struct Watch {
    DXRIOBlock block(std::chrono::microseconds length)
    {
        return [this, length](uint64_t time, DXRBuffer& buffer) {
            faults += inside.fetch_add(1) != 0 || isClosed;
            stepsBack += time < std::exchange(lastTime, time);
            buffer.samples()[0] = 0.5F;
            ++calls;
            const CXRealtimeExemption exemption("late without taking the processor from other tests");
            std::this_thread::sleep_for(length);
            --inside;
        };
    }
    std::atomic<uint32_t> calls{0}, faults{0}, inside{0}, stepsBack{0};
    std::atomic<bool> isClosed{false};
    uint64_t lastTime = 0; // used by blocks, which do not overlap, and set while no block runs
};

// Two runners on the same devices, one device hidden. Four threads make every call on one runner; a fifth
// starts and stops the other and checks that no block runs after stop has returned; a sixth changes the
// devices. Blocks take up to ten cycles, and notifiers and observers call back.
TEST(EngineStress, survivesEveryCallOnTwoRunnersWhileDevicesComeAndGo)
{
    constexpr uint32_t devices = 3;
    constexpr size_t nodes = 2U * (devices + 1);
    plug(devices, true); // before the manager enumerates the hardware
    plug(0);
    const CXRef<DXRDeviceRunner> runner = DXRDeviceRunner::init(), other = DXRDeviceRunner::init();
    Watch watch, otherWatch;
    ASSERT_TRUE(other->addDevice(device(0, true), std::nullopt, otherWatch.block(200us)));
    ASSERT_TRUE(other->addDevice(device(0, false), std::nullopt, otherWatch.block(2000us)));
    std::atomic<uint32_t> calls{0}, stops{0};
    const auto oneOf = [&](Random& random, const std::vector<std::function<void()>>& acts) {
        acts[random.below(static_cast<uint32_t>(acts.size()))]();
        std::this_thread::sleep_for(std::chrono::microseconds(random.below(10'000)));
    };
    const auto change = [&](Random& random) {
        const uint32_t i = random.below(devices), channels = 1 + random.below(4);
        const double newRate = random.below(2) == 0 ? 44100 : rate;
        const auto set = [=](auto& it) { it.noStreams(HALDirection::Output).outputs(channels); };
        const auto rateAddress = at(kAudioDevicePropertyNominalSampleRate);
        oneOf(random, {[&] { plug(i); }, [&] { plug(0); }, [&] { backend().unplug(uidOf(i)); },
                       [&] { backend().reconfigure(uidOf(i), set); },
                       [&] { writeValue(backend(), backend().deviceID(uidOf(i)), rateAddress, newRate); }});
    };
    const auto call = [&](Random& random) {
        constexpr std::chrono::microseconds lengths[] = {0us, 0us, 200us, 13333us};
        const auto block = watch.block(lengths[random.below(4)]);
        const CXRef<DXRDevice> one = device(random.below(devices + 1), random.below(2) == 0);
        oneOf(random,
              {[&] { runner->start(); }, [&] { runner->stop(); },
               [&] { runner->addDevice(one, std::nullopt, block); }, [&] { runner->removeDevice(one); },
               [&] { runner->setFrameCount(random.below(2) == 0 ? 64 : 100); },
               [&] { EXPECT_LE(runner->latencies().size(), nodes); },
               [&] { EXPECT_LE(runner->activeDevices().size(), nodes); }});
        ++calls;
    };
    const auto startAndStop = [&](Random& random) {
        otherWatch.isClosed = false;
        otherWatch.lastTime = 0;
        oneOf(random, {[&] { other->start(); }});
        other->stop();
        otherWatch.isClosed = true;
        ASSERT_EQ(otherWatch.inside, 0U);
        ++stops;
    };
    runner->setNotifier(nullptr, [&] { runner->activeDevices(); });
    const auto observations =
        runner->kvo()->observe(runner->kvo()->observableKeys(), [&](const std::string&, DXRKVOChange) {
            EXPECT_LE(runner->devices().size() + other->activeDevices().size(), 2 * nodes);
        });
    {
        std::vector<std::jthread> threads;
        for (uint32_t seed = 0; seed < 6; ++seed)
            threads.emplace_back([&, seed](const std::stop_token& isOver) {
                for (Random random(seed); !isOver.stop_requested();)
                    seed == 0 ? change(random) : seed == 1 ? startAndStop(random) : call(random);
            });
        const auto end = Clock::now() + std::chrono::duration<double>(soakSecondsOr(1.5));
        while (Clock::now() < end || calls < 200 || stops < 50) {
            dxr::MainQueue::shared().drain();
            std::this_thread::sleep_for(1ms);
        }
    }
    runner->setNotifier(nullptr, nullptr);
    runner->stop();
    watch.isClosed = true;
    std::this_thread::sleep_for(50ms);
    for (const Watch* each : {&watch, &otherWatch}) {
        EXPECT_EQ(each->inside + each->faults, 0U);
        EXPECT_GT(each->calls, 0U);
    }
    EXPECT_EQ(otherWatch.stepsBack, 0U) << "while it runs";
    for (uint32_t i = 0; i <= devices; ++i)
        backend().unplug(uidOf(i));
}

} // namespace
