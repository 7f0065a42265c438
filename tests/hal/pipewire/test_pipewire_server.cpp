#include "PipeWireTest.h"

#include <atomic>
#include <cstdlib>
#include <fstream>

namespace {

namespace fs = std::filesystem;

/// Frames delivered to a callback that plays silence.
AudioDeviceIOBlock counting(std::atomic<uint64_t>& cycles)
{
    return [&cycles](const AudioTimeStamp*, const AudioBufferList*, const AudioTimeStamp*, AudioBufferList*,
                     const AudioTimeStamp*) { ++cycles; };
}

double secondsOf(const std::function<void()>& work)
{
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

TEST(PipeWireServer, mayComeLaterIntoAFolderThatComesLater)
{
    const fs::path parent = fs::temp_directory_path() / ("dxr-later-" + std::to_string(getpid()));
    const fs::path folder = parent / "run" / "user";
    ASSERT_EQ(setenv("PIPEWIRE_RUNTIME_DIR", folder.c_str(), 1), 0);
    const CXRef<HALModel> hal = HALModel::initWithDriver(PipeWireDriver::initWithRemote());
    EXPECT_LT(secondsOf([&] { EXPECT_TRUE(readDevices(*hal).empty()); }), 1.0)
        << "where there is no server there is nothing to wait for";
    {
        PrivateServer server({.runtimeFolder = folder});
        VirtualDevices devices(server.remote());
        devices.plug({.name = "sink"});
        EXPECT_NE(waitForDevice(*hal, "sink"), kAudioObjectUnknown);
    }
    EXPECT_TRUE(eventually([&] { return readDevices(*hal).empty(); }));
    fs::remove_all(parent);
}

TEST(PipeWireServer, tellsOfEveryDeviceThatIsThereAtTheFirstQuestion)
{
    PrivateServer server;
    VirtualDevices devices(server.remote());
    for (int i = 0; i < 20; ++i)
        devices.plug({.name = "sink" + std::to_string(i)});
    const CXRef<HALModel> hal = HALModel::initWithDriver(PipeWireDriver::initWithRemote(server.remote()));
    EXPECT_EQ(readDevices(*hal).size(), 20U);
}

TEST(PipeWireServer, takesItsDevicesAlongWhenItDiesAndBringsThemBack)
{
    PrivateServer server;
    auto devices = std::make_unique<VirtualDevices>(server.remote());
    devices->plug({.name = "sink"});
    devices->plug({.name = "source", .mediaClass = "Audio/Source/Virtual"});
    const CXRef<HALModel> hal = HALModel::initWithDriver(PipeWireDriver::initWithRemote(server.remote()));
    std::atomic<size_t> told{0};
    const HALListener listener{nullptr, nullptr, [&](uint32_t, const AudioObjectPropertyAddress*) { ++told; },
                               nullptr};
    hal->addListener(kAudioObjectSystemObject, at(kAudioHardwarePropertyDevices), listener);
    std::vector<AudioObjectID> seen;
    for (int life = 0; life < 3; ++life) {
        const AudioObjectID sink = waitForDevice(*hal, "sink");
        const AudioObjectID source = waitForDevice(*hal, "source");
        for (const AudioObjectID device : {sink, source}) {
            EXPECT_EQ(std::ranges::find(seen, device), seen.end()) << "an object ID came back";
            seen.push_back(device);
        }
        std::atomic<uint64_t> cycles{0};
        const RunningProc proc(*hal, sink, counting(cycles));
        ASSERT_EQ(proc.status, kAudioHardwareNoError);
        ASSERT_TRUE(eventually([&] { return cycles > 10; }));

        const size_t before = told;
        server.kill();
        EXPECT_TRUE(eventually([&] { return readDevices(*hal).empty() && told > before; }));
        EXPECT_EQ(writeValue(*hal, sink, at(kAudioDevicePropertyMute, output), 1U),
                  kAudioHardwareBadObjectError);
        const uint64_t after = cycles;
        std::this_thread::sleep_for(std::chrono::milliseconds(30));
        EXPECT_EQ(cycles, after) << "a cycle of a device that is gone";

        devices.reset();
        server.start();
        devices = std::make_unique<VirtualDevices>(server.remote());
        devices->plug({.name = "source", .mediaClass = "Audio/Source/Virtual"});
        devices->plug({.name = "sink"});
    }
    hal->removeListener(kAudioObjectSystemObject, at(kAudioHardwarePropertyDevices), listener);
}

TEST(PipeWireServer, keepsNobodyWaitingWhileItHangs)
{
    PrivateServer server;
    VirtualDevices devices(server.remote());
    devices.plug({.name = "sink"});
    CXRef<HALModel> hal = HALModel::initWithDriver(PipeWireDriver::initWithRemote(server.remote()));
    const AudioObjectID device = waitForDevice(*hal, "sink");
    std::atomic<uint64_t> cycles{0};
    auto proc = std::make_unique<RunningProc>(*hal, device, counting(cycles));
    ASSERT_TRUE(eventually([&] { return cycles > 10; }));

    server.hang();
    const auto volume = at(kAudioDevicePropertyVolumeScalar, output);
    EXPECT_LT(secondsOf([&] { EXPECT_EQ(readValue<float>(*hal, device, volume), 1.0F); }), 1.0);
    for (const auto& write : std::initializer_list<std::function<HALStatus()>>{
             [&] { return writeValue(*hal, device, volume, 0.5F); },
             [&] { return writeValue(*hal, device, at(kAudioDevicePropertyMute, output), 1U); },
             [&] { return writeValue(*hal, device, at(kAudioDevicePropertyBufferFrameSize), 256U); }})
        EXPECT_LT(secondsOf([&] { EXPECT_EQ(write(), kAudioHardwareUnspecifiedError); }), 5.0);
    EXPECT_LT(secondsOf([&] { proc.reset(); }), 5.0) << "stopping waits for nobody";
    EXPECT_LT(secondsOf([&] {
                  const RunningProc another(*hal, device, counting(cycles));
                  EXPECT_EQ(another.status, kAudioHardwareUnspecifiedError);
              }),
              8.0);
    // One that comes now finds a server that takes the connection and then says nothing.
    EXPECT_LT(secondsOf([&] {
                  const CXRef<HALModel> late =
                      HALModel::initWithDriver(PipeWireDriver::initWithRemote(server.remote()));
                  EXPECT_TRUE(readDevices(*late).empty());
              }),
              8.0);

    server.resume();
    EXPECT_TRUE(eventually([&] { return readValue<float>(*hal, device, volume) == 0.5F; }))
        << "what was asked meanwhile is done now";
    const uint64_t before = cycles;
    proc = std::make_unique<RunningProc>(*hal, device, counting(cycles));
    EXPECT_TRUE(eventually([&] { return cycles > before + 10; }));
    proc.reset();
    server.hang();
    EXPECT_LT(secondsOf([&] { hal = nullptr; }), 5.0) << "nor does the end of the backend";
    server.resume();
}

TEST(PipeWireServer, diesWithoutHarmWhileEverythingIsUnderWay)
{
    PrivateServer server;
    const CXRef<HALModel> hal = HALModel::initWithDriver(PipeWireDriver::initWithRemote(server.remote()));
    std::atomic<bool> done{false};
    std::thread user([&] {
        while (!done)
            for (const AudioObjectID device : readDevices(*hal)) {
                std::atomic<uint64_t> cycles{0};
                AudioDeviceIOProcID proc = nullptr;
                if (hal->createIOProc(device, counting(cycles), proc) != kAudioHardwareNoError)
                    continue;
                hal->start(device, proc);
                writeValue(*hal, device, at(kAudioDevicePropertyMute, output), 1U);
                hal->destroyIOProc(device, proc);
            }
    });
    for (int life = 0; life < 8; ++life) {
        VirtualDevices devices(server.remote());
        devices.plug({.name = "sink"});
        waitForDevice(*hal, "sink");
        std::this_thread::sleep_for(std::chrono::milliseconds(7 * life));
        server.kill();
        server.start();
    }
    done = true;
    user.join();
}

} // namespace
