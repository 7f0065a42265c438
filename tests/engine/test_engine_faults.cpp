// A runner among devices that come and go, in real time.

#include "DXRDeviceManager.h"
#include "DXRDeviceRunner.h"
#include "MainQueue.h"
#include "Random.h"
#include "simulated.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <thread>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

SimulatedBackend& backend()
{
    static const CXRef<SimulatedBackend> made = [] {
        CXRef<SimulatedBackend> backend = SimulatedBackend::init(SimulatedClock::RealTime);
        HALSetBackend(backend);
        return backend;
    }();
    return *made;
}

SimulatedDeviceBuilder describe(int i)
{
    return aDevice()
        .uid("device " + std::to_string(i))
        .inputs(2)
        .outputs(2)
        .bufferFrameSize(64)
        .sampleRate(i % 2 == 0 ? 48000 : 44100)
        .sampleRates({44100, 48000})
        .drift(i * 50.0);
}

CXRef<DXRDevice> device(int i, bool isInput)
{
    return DXRDeviceManager::sharedDeviceManager().deviceWithDeviceUID("device " + std::to_string(i),
                                                                       isInput);
}

std::chrono::milliseconds stressTime()
{
    const char* const seconds = std::getenv("DXR_SOAK_SECONDS");
    return seconds ? std::chrono::seconds(std::atoi(seconds)) : std::chrono::milliseconds(1500);
}

/// Runs `body` again and again on a thread of its own.
class Busy {
public:
    Busy(std::atomic<bool>& isOver, std::function<void()> body)
        : _thread([&isOver, body = std::move(body)] {
              while (!isOver)
                  body();
          })
    {}
    ~Busy() { _thread.join(); }
    Busy(const Busy&) = delete;
    Busy& operator=(const Busy&) = delete;

private:
    std::thread _thread;
};

/// Counts calls of IO blocks, and those that overlap or that come when none may.
struct Watch {
    DXRIOBlock block(std::chrono::microseconds length = 0us)
    {
        return [this, length](uint64_t time, DXRBuffer& buffer) {
            if (inside.fetch_add(1) != 0 || isClosed)
                ++faults;
            if (time < lastTime)
                ++steps;
            lastTime = time;
            buffer.samples()[0] = 0.5F;
            for (const auto until = Clock::now() + length; Clock::now() < until;) {
            }
            ++calls;
            --inside;
        };
    }
    std::atomic<int> inside{0};
    std::atomic<bool> isClosed{false};
    std::atomic<uint64_t> lastTime{0};
    std::atomic<uint32_t> calls{0}, faults{0}, steps{0};
};

void serveMainQueue()
{
    platform::MainQueue::shared().drain();
}

// No deadlock, no call after stop, no use of what is gone, and nothing on the IO threads that does not belong there: the
// sanitizers and the checking library look on.
TEST(EngineStress, survivesEveryCallFromFourThreadsWhileDevicesComeAndGo)
{
    constexpr int devices = 3;
    backend();
    const CXRef<DXRDeviceRunner> runner = DXRDeviceRunner::init();
    Watch watch;
    std::atomic<bool> isOver{false};
    std::atomic<uint32_t> done{0};
    std::atomic<uint64_t> seeds{1};
    {
        const Busy hands(isOver, [random = Random(7)]() mutable {
            const int i = static_cast<int>(random.below(devices));
            const std::string uid = "device " + std::to_string(i);
            switch (random.below(4)) {
            case 0:
                backend().plug(describe(i));
                break;
            case 1:
                backend().unplug(uid);
                break;
            case 2:
                backend().reconfigure(
                    uid, [&](auto& it) { it.noStreams(HALDirection::Input).inputs(1 + random.below(4)); });
                break;
            default:
                backend().plug(describe(0));
                break;
            }
            std::this_thread::sleep_for(std::chrono::milliseconds(random.below(8)));
        });
        const auto client = [&] {
            thread_local Random random(seeds++);
            const int i = static_cast<int>(random.below(devices));
            const CXRef<DXRDevice> one = device(i, random.below(2) == 0);
            switch (random.below(8)) {
            case 0:
                runner->start();
                break;
            case 1:
                runner->stop();
                break;
            case 2:
            case 3:
                runner->addDevice(one, std::nullopt, watch.block());
                break;
            case 4:
                runner->removeDevice(one);
                break;
            case 5:
                runner->setFrameCount(random.below(2) == 0 ? 64 : 100);
                break;
            case 6:
                EXPECT_LE(runner->activeDevices().size(), 2U * devices);
                break;
            default:
                std::this_thread::sleep_for(std::chrono::milliseconds(random.below(10)));
                break;
            }
            ++done;
        };
        const Busy a(isOver, client), b(isOver, client), c(isOver, client), d(isOver, client);
        for (const auto end = Clock::now() + stressTime(); Clock::now() < end || done < 200;) {
            serveMainQueue();
            std::this_thread::sleep_for(1ms);
        }
        isOver = true;
    }
    runner->stop();
    watch.isClosed = true;
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(watch.faults, 0U);
    EXPECT_GT(watch.calls, 0U);
    std::printf("%u calls of clients, %u of IO blocks\n", done.load(), watch.calls.load());
    for (int i = 0; i < devices; ++i)
        backend().unplug("device " + std::to_string(i));
}

// stop returns in the middle of everything, a thousand times: then no block is running and none comes.
TEST(EngineStress, callsNoBlockOnceStopHasReturned)
{
    backend().plug(describe(0));
    backend().settle();
    const CXRef<DXRDeviceRunner> runner = DXRDeviceRunner::init();
    Watch watch;
    DXRDeviceManager::sharedDeviceManager();
    DXRDeviceManager::queue().sync([] {});
    ASSERT_TRUE(runner->addDevice(device(0, true), std::nullopt, watch.block()));
    ASSERT_TRUE(runner->addDevice(device(0, false), std::nullopt, watch.block(200us)));
    Random random(3);
    for (const auto end = Clock::now() + stressTime() / 2; Clock::now() < end;) {
        watch.isClosed = false;
        watch.lastTime = 0;
        runner->start();
        std::this_thread::sleep_for(std::chrono::microseconds(random.below(5000)));
        runner->stop();
        watch.isClosed = true;
        ASSERT_EQ(watch.inside, 0);
        std::this_thread::sleep_for(std::chrono::microseconds(random.below(2000)));
        serveMainQueue();
    }
    EXPECT_EQ(watch.faults, 0U);
    EXPECT_EQ(watch.steps, 0U);
    EXPECT_GT(watch.calls, 0U);
    backend().unplug("device 0");
}

TEST(EngineFaults, livesWithABlockThatOverrunsItsDeadlineTenTimesOver)
{
    backend().plug(describe(0));
    const CXRef<DXRDeviceRunner> runner = DXRDeviceRunner::init();
    Watch watch;
    DXRDeviceManager::sharedDeviceManager();
    backend().settle();
    DXRDeviceManager::queue().sync([] {});
    ASSERT_TRUE(runner->addDevice(device(0, false), std::nullopt, watch.block(13333us)));
    runner->start();
    while (watch.calls < 20)
        std::this_thread::sleep_for(1ms);
    const auto begin = Clock::now();
    EXPECT_EQ(runner->devices().size(), 1U);
    runner->stop();
    EXPECT_LT(Clock::now() - begin, 1s) << "calls get their turn all the same";
    EXPECT_EQ(watch.inside, 0);
    EXPECT_EQ(watch.steps, 0U);
    backend().unplug("device 0");
}

} // namespace
