#include "InChild.h"
#include "LogSink.h"
#include "PipeWireTest.h"

#include <filesystem>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace {

namespace fs = std::filesystem;

double secondsOf(const std::function<void()>& work)
{
    const auto start = std::chrono::steady_clock::now();
    work();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

CXRef<HALModel> modelOver(const PrivateServer& server)
{
    return HALModel::initWithDriver(PipeWireDriver::initWithRemote(server.remote()));
}

TEST(PipeWireServer, mayComeLaterIntoAFolderThatComesLater)
{
    const fs::path parent = fs::temp_directory_path() / ("dxr-later-" + std::to_string(getpid()));
    const fs::path folder = parent / "run" / "user";
    ASSERT_EQ(setenv("PIPEWIRE_RUNTIME_DIR", folder.c_str(), 1), 0);
    const CXRef<HALModel> hal = HALModel::initWithDriver(PipeWireDriver::initWithRemote());
    EXPECT_TRUE(readDevices(*hal).empty());
    {
        PrivateServer server({.runtimeFolder = folder});
        TestClient client(server.remote());
        client.plug({.name = "sink"});
        EXPECT_NE(waitForDevice(*hal, "sink"), kAudioObjectUnknown);
    }
    EXPECT_TRUE(eventually([&] { return readDevices(*hal).empty(); }));
    fs::remove_all(parent);
}

TEST(PipeWireServer, takesItsDevicesAlongWhenItDiesAndBringsThemBack)
{
    PrivateServer server;
    std::vector<AudioObjectID> seen;
    auto client = std::make_unique<TestClient>(server.remote());
    for (int i = 0; i < 20; ++i)
        client->plug({.name = "device" + std::to_string(i)});
    const CXRef<HALModel> hal = modelOver(server);
    EXPECT_EQ(readShownDevices(*hal).size(), 20U) << "all of them at the first read";
    const RecordingListener listener(*hal, kAudioObjectSystemObject, at(kAudioHardwarePropertyDevices));
    for (int life = 0; life < 3; ++life) {
        const AudioObjectID sink = waitForDevice(*hal, "device1");
        for (const AudioObjectID device : {sink, waitForDevice(*hal, "device2")}) {
            EXPECT_EQ(std::ranges::count(seen, device), 0) << "an object ID came back";
            seen.push_back(device);
        }
        CycleWitness witness;
        const RunningProc proc(*hal, sink, witnessing(witness));
        ASSERT_TRUE(witness.waitForMore());
        const size_t before = listener.count();
        server.kill();
        EXPECT_TRUE(eventually([&] { return readDevices(*hal).empty() && listener.count() > before; }));
        EXPECT_EQ(writeValue(*hal, sink, at(kAudioDevicePropertyMute, output), 1U),
                  kAudioHardwareBadObjectError);
        const uint64_t after = witness.cycles;
        sleepForMilliseconds(30);
        EXPECT_EQ(witness.cycles, after) << "a cycle of a device that is gone";
        client.reset();
        server.start();
        client = std::make_unique<TestClient>(server.remote());
        client->plug({.name = "device2"});
        client->plug({.name = "device1"});
    }
}

using PipeWireServerTest = PipeWireTest;

TEST_F(PipeWireServerTest, keepsNobodyWaitingWhileItHangs)
{
    const AudioObjectID device = plug({.name = "sink"});
    CycleWitness witness;
    auto proc = std::make_unique<RunningProc>(*hal, device, witnessing(witness));
    ASSERT_TRUE(witness.waitForMore());

    server.hang();
    const auto volume = at(kAudioDevicePropertyVolumeScalar, output);
    const auto mute = at(kAudioDevicePropertyMute, output);
    const auto frames = at(kAudioDevicePropertyBufferFrameSize);
    const struct {
        const char* what;
        std::function<void()> work;
        double maxSeconds;
    } rows[] = {
        {"a read", [&] { EXPECT_EQ(readValue<float>(*hal, device, volume), 1.0F); }, 1.0},
        {"volume", [&] { EXPECT_EQ(writeValue(*hal, device, volume, 0.5F), kAudioHardwareUnspecifiedError); },
         5.0},
        {"mute", [&] { EXPECT_EQ(writeValue(*hal, device, mute, 1U), kAudioHardwareUnspecifiedError); }, 5.0},
        {"frames", [&] { EXPECT_EQ(writeValue(*hal, device, frames, 256U), kAudioHardwareUnspecifiedError); },
         5.0},
        {"a stop", [&] { proc.reset(); }, 5.0},
        {"a start",
         [&] {
             EXPECT_EQ(RunningProc(*hal, device, witnessing(witness)).status, kAudioHardwareUnspecifiedError);
         },
         8.0},
        {"a connection", [&] { EXPECT_TRUE(readDevices(*modelOver(server)).empty()); }, 8.0},
    };
    for (const auto& row : rows)
        EXPECT_LT(secondsOf(row.work), row.maxSeconds) << row.what;

    server.resume();
    EXPECT_TRUE(eventually([&] { return readValue<float>(*hal, device, volume) == 0.5F; }))
        << "requests made meanwhile are carried out";
    proc = std::make_unique<RunningProc>(*hal, device, witnessing(witness));
    EXPECT_TRUE(witness.waitForMore());
    proc.reset();
    server.hang();
    EXPECT_LT(secondsOf([&] { hal = nullptr; }), 5.0) << "nor does the end of the driver wait";
    server.resume();
}

/// Not a sound server: it accepts connections, sends the same bytes on each, and counts the connections.
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
                close(connection); // without reading what was sent
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

/// Returns messages, as a server sends them, that report the end of requests that were never made.
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
        CXRef<HALModel> hal;
        const double seconds = secondsOf([&] {
            hal = modelOver(server);
            EXPECT_TRUE(eventually([&] { return impostor->count >= 8; }))
                << "not tried again after " << row.why;
        });
        EXPECT_LT(impostor->count, 12 + seconds) << "and not more often than makes sense: " << row.why;
        impostor.reset();
        server.start();
        TestClient client(server.remote());
        client.plug({.name = "sink"});
        EXPECT_NE(waitForDevice(*hal, "sink"), kAudioObjectUnknown) << row.why;
    }
}

/// Limits the number of the process's descriptors while it exists.
class DescriptorLimit {
public:
    explicit DescriptorLimit(rlim_t count)
    {
        getrlimit(RLIMIT_NOFILE, &_before);
        const rlimit limit{count, _before.rlim_max};
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &limit), 0);
    }
    ~DescriptorLimit() { setrlimit(RLIMIT_NOFILE, &_before); }

    /// The lowest unused descriptor.
    static rlim_t used()
    {
        const int next = dup(0);
        close(next);
        return static_cast<rlim_t>(next);
    }

private:
    rlimit _before{};
};

TEST_F(PipeWireServerTest, isFoundAgainWhenDescriptorsRunOut)
{
    const AudioObjectID before = plug({.name = "wide", .channelCount = 64});
    CycleWitness witness;
    {
        const DescriptorLimit limit(DescriptorLimit::used() + 40); // each channel needs two
        const RunningProc proc(*hal, before, witnessing(witness));
        EXPECT_TRUE(eventually([&] {
            const AudioObjectID now = deviceWithUID(*hal, "wide");
            return now != kAudioObjectUnknown && now != before;
        })) << "the connection is lost, and made again";
    }
    const RunningProc proc(*hal, waitForDevice(*hal, "wide"), witnessing(witness));
    EXPECT_EQ(proc.status, kAudioHardwareNoError);
    EXPECT_TRUE(witness.waitForMore());
}

TEST_F(PipeWireServerTest, runsFortyDevicesWithAThousandDescriptors)
{
    const DescriptorLimit limit(1024);
    std::array<CycleWitness, 40> witnesses;
    std::vector<std::unique_ptr<RunningProc>> procs;
    for (CycleWitness& each : witnesses) {
        const AudioObjectID device = plug({.name = "sink" + std::to_string(procs.size())});
        procs.push_back(std::make_unique<RunningProc>(*hal, device, witnessing(each)));
        EXPECT_EQ(procs.back()->status, kAudioHardwareNoError) << procs.size();
    }
    for (const CycleWitness& each : witnesses)
        EXPECT_TRUE(each.waitForMore());
    procs.clear();
}

// With too few descriptors at the first use there are no devices, but no crash or exception; devices appear
// when more descriptors are available.
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
                hal = modelOver(server);
                readDevices(*hal);
                sleepForMilliseconds(20);
                EXPECT_LE(logged, before + 1);
            }
            TestClient client(server.remote());
            client.plug({.name = "sink"});
            EXPECT_NE(waitForDevice(*hal, "sink"), kAudioObjectUnknown) << "after " << left << " descriptors";
        }
    }));
}

// The server is killed during a conversation, on a machine so busy that either side is delayed at any point.
TEST(PipeWireServer, isFoundAgainAfterEveryRestart)
{
    const char* const restarts = std::getenv("DXR_SOAK_RESTARTS");
    const int rounds = restarts ? std::atoi(restarts) : 10;
    std::vector<std::jthread> busy;
    while (busy.size() < 2 * std::thread::hardware_concurrency())
        busy.emplace_back([](const std::stop_token& end) {
            while (!end.stop_requested())
                continue;
        });
    PrivateServer server;
    const CXRef<HALModel> hal = modelOver(server);
    const std::jthread user([&](const std::stop_token& end) {
        for (uint32_t muted = 0; !end.stop_requested(); muted ^= 1U)
            for (const AudioObjectID device : readDevices(*hal)) {
                AudioDeviceIOProcID proc = nullptr;
                if (hal->createIOProc(
                        device, [](auto...) {}, proc) == kAudioHardwareNoError)
                    hal->start(device, proc);
                writeValue(*hal, device, at(kAudioDevicePropertyMute, output), muted);
                hal->destroyIOProc(device, proc);
            }
    });
    for (int round = 0; round < rounds; ++round) {
        TestClient client(server.remote());
        client.plug({.name = "sink"});
        ASSERT_NE(waitForDevice(*hal, "sink"), kAudioObjectUnknown) << "round " << round;
        std::this_thread::sleep_for(std::chrono::microseconds(300 * (round % 17)));
        server.kill();
        server.start();
    }
}

} // namespace
