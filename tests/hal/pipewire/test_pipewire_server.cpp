#include "InChild.h"
#include "LogSink.h"
#include "PipeWireTest.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <fstream>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

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
    EXPECT_EQ(readShownDevices(*hal).size(), 20U);
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
    EXPECT_LT(secondsOf([&] { hal = nullptr; }), 5.0) << "nor does the end of the driver";
    server.resume();
}

/// What is no server: it takes connections, sends each the same bytes, and counts them.
class Impostor {
public:
    enum class Then { Waits, HangsUp };

    Impostor(const std::string& path, std::string bytes, Then then) : _bytes(std::move(bytes)), _then(then)
    {
        sockaddr_un address{};
        address.sun_family = AF_UNIX;
        path.copy(address.sun_path, sizeof address.sun_path - 1);
        unlink(path.c_str());
        _listening = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(bind(_listening, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
        EXPECT_EQ(listen(_listening, 8), 0);
        _thread = std::thread([this] { _serve(); });
    }
    ~Impostor()
    {
        shutdown(_listening, SHUT_RDWR);
        _thread.join();
        for (const int connection : _connections)
            close(connection);
        close(_listening);
    }

    std::atomic<int> count{0};

private:
    void _serve()
    {
        for (int connection; (connection = accept4(_listening, nullptr, nullptr, SOCK_CLOEXEC)) >= 0;
             ++count) {
            send(connection, _bytes.data(), _bytes.size(), MSG_NOSIGNAL);
            if (_then == Then::HangsUp)
                close(connection); // with what was sent to it unread
            else
                _connections.push_back(connection);
        }
    }

    const std::string _bytes;
    const Then _then;
    int _listening = -1;
    std::vector<int> _connections;
    std::thread _thread;
};

/// Reports of finished requests that nobody has made, as a server writes them.
std::string manyDone(size_t count)
{
    const uint32_t message[] = {0, 1U << 24 | 40, 0, 0, 32, 14, 4, 4, 0, 0, 4, 4, 0x3FFFFFFF, 0};
    std::string all;
    for (size_t i = 0; i < count; ++i)
        all.append(reinterpret_cast<const char*>(message), sizeof message);
    return all;
}

TEST(PipeWireServer, mayTalkNonsenseForAWhile)
{
    const struct {
        const char* why;
        std::string bytes;
        Impostor::Then then;
    } rows[] = {
        {"another protocol", "GET / HTTP/1.1\r\nHost: localhost\r\nAccept: */*\r\n", Impostor::Then::Waits},
        {"more descriptors than there can be",
         {"\0\0\0\0\x08\0\0\0\0\0\0\0\xFF\xFF\xFF\x7F", 16},
         Impostor::Then::Waits},
        {"an end in the middle of a conversation", manyDone(100000), Impostor::Then::HangsUp},
    };
    for (const auto& row : rows) {
        PrivateServer server({}, false);
        auto impostor = std::make_unique<Impostor>(server.remote(), row.bytes, row.then);
        const auto start = std::chrono::steady_clock::now();
        const CXRef<HALModel> hal = HALModel::initWithDriver(PipeWireDriver::initWithRemote(server.remote()));
        EXPECT_TRUE(eventually([&] { return impostor->count >= 8; })) << "not tried again after " << row.why;
        const auto seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
        EXPECT_LT(impostor->count, 12 + seconds) << "and not more often than makes sense: " << row.why;
        impostor.reset();
        server.start();
        VirtualDevices devices(server.remote());
        devices.plug({.name = "sink"});
        EXPECT_NE(waitForDevice(*hal, "sink"), kAudioObjectUnknown) << row.why;
    }
}

/// Sets how many descriptors the process may have, for as long as this lives.
class DescriptorLimit {
public:
    explicit DescriptorLimit(rlim_t count)
    {
        getrlimit(RLIMIT_NOFILE, &_before);
        const rlimit limit{count, _before.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    }
    ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &_before); }

    /// The lowest descriptor that is free.
    static rlim_t used()
    {
        const int next = dup(0);
        close(next);
        return static_cast<rlim_t>(next);
    }

private:
    rlimit _before{};
};

TEST(PipeWireServer, isFoundAgainWhenDescriptorsRunOut)
{
    PrivateServer server;
    VirtualDevices devices(server.remote());
    devices.plug({.name = "wide", .channelCount = 64});
    const CXRef<HALModel> hal = HALModel::initWithDriver(PipeWireDriver::initWithRemote(server.remote()));
    const AudioObjectID before = waitForDevice(*hal, "wide");
    std::atomic<uint64_t> cycles{0};
    {
        const DescriptorLimit limit(DescriptorLimit::used() + 40); // each channel takes two
        const RunningProc proc(*hal, before, counting(cycles));
        EXPECT_TRUE(eventually([&] {
            const AudioObjectID now = deviceWithUID(*hal, "wide");
            return now != kAudioObjectUnknown && now != before;
        })) << "the connection is lost, and made again";
    }
    const RunningProc proc(*hal, waitForDevice(*hal, "wide"), counting(cycles));
    EXPECT_EQ(proc.status, kAudioHardwareNoError);
    const uint64_t count = cycles;
    EXPECT_TRUE(eventually([&] { return cycles > count + 10; }));
}

TEST(PipeWireServer, runsFortyDevicesWithAThousandDescriptors)
{
    PrivateServer server;
    VirtualDevices devices(server.remote());
    const DescriptorLimit limit(1024);
    const CXRef<HALModel> hal = HALModel::initWithDriver(PipeWireDriver::initWithRemote(server.remote()));
    std::array<std::atomic<uint64_t>, 40> cycles{};
    std::vector<std::unique_ptr<RunningProc>> procs;
    for (size_t i = 0; i < cycles.size(); ++i)
        devices.plug({.name = "sink" + std::to_string(i)});
    for (size_t i = 0; i < cycles.size(); ++i) {
        const AudioObjectID device = waitForDevice(*hal, "sink" + std::to_string(i));
        procs.push_back(std::make_unique<RunningProc>(*hal, device, counting(cycles[i])));
        EXPECT_EQ(procs.back()->status, kAudioHardwareNoError) << i;
    }
    EXPECT_TRUE(
        eventually([&] { return std::ranges::all_of(cycles, [](const auto& each) { return each > 10; }); }));
}

// With too few descriptors at the first use: no crash, no exception, no devices; and devices when there are
// more.
TEST(PipeWireServer, isFoundWhenThereAreDescriptorsAtLast)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the undefined-behaviour sanitizer needs descriptors to look at virtual tables";
#endif
    PrivateServer server;
    EXPECT_TRUE(runInChild([&] {
        int logged = 0;
        dxr::LogSink::setWriter([&](std::string_view) { ++logged; });
        for (rlim_t left = 0; left < 30; ++left) {
            CXRef<HALModel> hal;
            {
                const DescriptorLimit limit(DescriptorLimit::used() + left);
                const int before = logged;
                hal = HALModel::initWithDriver(PipeWireDriver::initWithRemote(server.remote()));
                readDevices(*hal);
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
                EXPECT_LE(logged, before + 1);
            }
            VirtualDevices devices(server.remote());
            devices.plug({.name = "sink"});
            EXPECT_NE(waitForDevice(*hal, "sink"), kAudioObjectUnknown) << "after " << left << " descriptors";
        }
    }));
}

/// Keeps every processor busy as long as it lives.
class BusyMachine {
public:
    BusyMachine()
    {
        for (unsigned i = 0; i < 2 * std::thread::hardware_concurrency(); ++i)
            _threads.emplace_back([this] {
                while (!_done)
                    continue;
            });
    }
    ~BusyMachine()
    {
        _done = true;
        for (std::thread& thread : _threads)
            thread.join();
    }

private:
    std::atomic<bool> _done{false};
    std::vector<std::thread> _threads;
};

// Killed in the middle of a conversation, on a machine that delays either side at any point.
TEST(PipeWireServer, isFoundAgainAfterEveryRestart)
{
    const char* const restarts = std::getenv("DXR_SOAK_RESTARTS");
    const int rounds = restarts ? std::atoi(restarts) : 10;
    const BusyMachine busy;
    PrivateServer server;
    const CXRef<HALModel> hal = HALModel::initWithDriver(PipeWireDriver::initWithRemote(server.remote()));
    std::atomic<bool> done{false};
    std::thread user([&] {
        for (uint32_t muted = 0; !done; muted ^= 1U)
            for (const AudioObjectID device : readDevices(*hal)) {
                std::atomic<uint64_t> cycles{0};
                AudioDeviceIOProcID proc = nullptr;
                if (hal->createIOProc(device, counting(cycles), proc) == kAudioHardwareNoError)
                    hal->start(device, proc);
                writeValue(*hal, device, at(kAudioDevicePropertyMute, output), muted);
                hal->destroyIOProc(device, proc);
            }
    });
    for (int round = 0; round < rounds; ++round) {
        VirtualDevices devices(server.remote());
        devices.plug({.name = "sink"});
        ASSERT_NE(waitForDevice(*hal, "sink"), kAudioObjectUnknown) << "round " << round;
        std::this_thread::sleep_for(std::chrono::microseconds(300 * (round % 17)));
        server.kill();
        server.start();
    }
    done = true;
    user.join();
}

} // namespace
