// A runner on a real sound server. On a busy machine the server loses cycles; what is not lost must be exact.

#include "DXRDeviceManager.h"
#include "DXRDeviceRunner.h"
#include "PipeWireTest.h"

#include <array>
#include <atomic>
#include <cmath>
#include <cstdlib>

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr float step = 1.0F / (1U << 24);

std::chrono::seconds soakOr(std::chrono::seconds shortly)
{
    const char* const seconds = std::getenv("DXR_SOAK_SECONDS");
    return seconds ? std::chrono::seconds(std::atoi(seconds)) : shortly;
}

CXRef<DXRDevice> waitForManaged(const std::string& uid, bool isInput)
{
    DXRDeviceManager& manager = DXRDeviceManager::sharedDeviceManager();
    CXRef<DXRDevice> device;
    eventually([&] {
        device = manager.deviceWithDeviceUID(uid, isInput);
        return device && device->isConnected();
    });
    return device;
}

/// What an input block hears of a ramp that the runner itself plays.
struct Hearing {
    std::atomic<uint64_t> frames{0}; ///< of the ramp
    std::atomic<uint64_t> jumps{0};  ///< where the server lost something
    std::atomic<uint64_t> faded{0};  ///< frames that are none of the ramp's
    int64_t last = 0;

    DXRIOBlock block()
    {
        return [this](uint64_t, DXRBuffer& buffer) {
            for (uint32_t frame = 0; frame < buffer.frameCount(); ++frame) {
                const int64_t value =
                    std::llround(buffer.samples()[size_t{frame} * buffer.channelCount()] / step);
                const bool isExact = static_cast<float>(value) * step ==
                                     buffer.samples()[size_t{frame} * buffer.channelCount()];
                const bool isNext = last == 0 || value == 0 || value == ((last + 1) & 0xFFFFFF);
                jumps += !isNext;
                faded += !isExact;
                frames += value != 0;
                last = value;
            }
        };
    }
};

/// A server with two devices that hear what is played to them, and a runner that plays to both and hears both.
class EngineOnPipeWire : public testing::Test {
protected:
    EngineOnPipeWire()
    {
        HALSetHardwareDriver(PipeWireDriver::initWithRemote(server.remote()));
        plugDevices();
        runner = DXRDeviceRunner::init();
        runner->setFrameCount(128);
        runner->setSampleRate(48000);
        for (size_t i = 0; i < 2; ++i) {
            EXPECT_TRUE(runner->addDevice(waitForManaged(names[i], true), std::nullopt, hearings[i].block()));
            EXPECT_TRUE(runner->addDevice(
                waitForManaged(names[i], false), std::nullopt, [this, i](uint64_t time, DXRBuffer& buffer) {
                    for (uint32_t frame = 0; frame < buffer.frameCount(); ++frame) {
                        for (uint32_t channel = 0; channel < buffer.channelCount(); ++channel)
                            buffer.samples()[size_t{frame} * buffer.channelCount() + channel] =
                                static_cast<float>((time + frame + 1) & 0xFFFFFF) * step;
                    }
                    if (i == 0)
                        follow(time);
                }));
        }
    }
    ~EngineOnPipeWire() override { runner->stop(); }

    void plugDevices()
    {
        devices = std::make_unique<VirtualDevices>(server.remote());
        for (const char* name : names)
            devices->plug({.name = name, .mediaClass = "Audio/Duplex"});
    }
    void follow(uint64_t time)
    {
        backwards += time < last;
        longestGap = std::max<uint64_t>(longestGap, time - std::min<uint64_t>(time, last));
        last = time;
        ++cycles;
    }

    static constexpr std::array names{"first", "second"};
    PrivateServer server;
    std::unique_ptr<VirtualDevices> devices;
    CXRef<DXRDeviceRunner> runner;
    Hearing hearings[2];
    std::atomic<uint64_t> last{0}, longestGap{0};
    std::atomic<uint32_t> cycles{0}, backwards{0};
};

TEST_F(EngineOnPipeWire, loopsTwoDevicesAtOnceExactly)
{
    runner->start();
    // The server says whose clock is whose once both run; until then the second is brought to the first's.
    ASSERT_TRUE(eventually([&] { return hearings[0].frames > 96000 && hearings[1].frames > 96000; }));
    uint64_t faded[2], jumps[2];
    for (size_t i = 0; i < 2; ++i) {
        faded[i] = hearings[i].faded;
        jumps[i] = hearings[i].jumps;
    }
    std::this_thread::sleep_for(soakOr(2s));
    EXPECT_EQ(runner->activeDevices().size(), 4U);
    runner->stop();
    for (size_t i = 0; i < 2; ++i) {
        constexpr uint64_t mostFaded = 2 * 64; // frames, around each jump
        EXPECT_LE(hearings[i].faded - faded[i], mostFaded * (hearings[i].jumps - jumps[i])) << names[i];
        std::printf("%s: %llu frames heard, %llu jumps\n", names[i],
                    static_cast<unsigned long long>(hearings[i].frames),
                    static_cast<unsigned long long>(hearings[i].jumps));
    }
    EXPECT_EQ(backwards, 0U);
}

TEST_F(EngineOnPipeWire, keepsTimeWhileTheServerIsGone)
{
    runner->start();
    ASSERT_TRUE(eventually([&] { return hearings[0].frames > 4800; }));
    const auto begin = Clock::now();
    const uint64_t timeAtKill = last;
    server.kill();
    devices.reset();
    ASSERT_TRUE(eventually([&] { return runner->activeDevices().empty(); }));
    const uint32_t cyclesAtKill = cycles;
    const auto away = soakOr(1s) > 5s ? 5s : 1s;
    std::this_thread::sleep_until(begin + away);
    EXPECT_GT(cycles, cyclesAtKill + 100U) << "the timer keeps calling";
    server.start();
    plugDevices();
    ASSERT_TRUE(eventually([&] { return runner->activeDevices().size() == 4; }));
    const uint64_t heard = hearings[1].frames;
    ASSERT_TRUE(eventually([&] { return hearings[1].frames > heard + 4800; })) << "sound is back";
    const std::chrono::duration<double> passed = Clock::now() - begin;
    const uint64_t time = last;
    runner->stop();
    EXPECT_EQ(backwards, 0U);
    EXPECT_NEAR(static_cast<double>(time - timeAtKill), passed.count() * 48000, 48000) << "within a second";
    std::printf("away %.1f s, time went on by %.2f s in %.2f s, longest step %llu frames\n",
                static_cast<double>(away.count()), static_cast<double>(time - timeAtKill) / 48000,
                passed.count(), static_cast<unsigned long long>(longestGap));
}

} // namespace
