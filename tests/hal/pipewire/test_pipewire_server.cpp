#include "InChild.h"
#include "LogSink.h"
#include "PipeWireTest.h"

#include <deque>
#include <future>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>

namespace {

CXRef<HALModel> modelOver(const PrivateServer& server)
{
    return HALModel::initWithDriver(PipeWireDriver::initWithRemote(server.remote()));
}

// The folder of the socket and its parent appear with the server.
TEST(PipeWireServer, mayComeLaterAndAgain)
{
    PrivateServer server;
    server.kill();
    std::filesystem::remove_all(server.folder().parent_path());
    ASSERT_EQ(setenv("PIPEWIRE_RUNTIME_DIR", server.folder().c_str(), 1), 0);
    const CXRef<HALModel> hal = HALModel::initWithDriver(PipeWireDriver::initWithRemote());
    EXPECT_TRUE(readDevices(*hal).empty());
    const RecordingListener listener(*hal, kAudioObjectSystemObject, at(kAudioHardwarePropertyDevices));
    AudioObjectID before = kAudioObjectUnknown;
    for (int life = 0; life < 2; ++life) {
        server.start();
        TestClient client(server.remote());
        client.plug({.name = "sink"});
        const AudioObjectID sink = waitForDevice(*hal, "sink");
        EXPECT_NE(sink, before) << "an object ID came back";
        before = sink;
        CycleWitness witness;
        const RunningProc proc(*hal, sink, witnessing(witness));
        ASSERT_TRUE(witness.waitForMore());
        const size_t announced = listener.count();
        server.kill();
        EXPECT_TRUE(eventually([&] { return readDevices(*hal).empty() && listener.count() > announced; }));
        EXPECT_EQ(writeValue(*hal, sink, at(kAudioDevicePropertyMute, output), 1U),
                  kAudioHardwareBadObjectError);
        const uint64_t after = witness.cycles;
        sleepForMilliseconds(30);
        EXPECT_EQ(witness.cycles, after) << "a cycle of a device that is gone";
    }
}

// In the second round the folder is mounted after it was created, as the login manager does.
TEST(PipeWireServer, mayComeBehindALinkAndUnderAMount)
{
    inChild([] {
        const bool canMount =
            unshare(CLONE_NEWNS) == 0 && mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0;
        PrivateServer server;
        const std::filesystem::path link = server.folder().parent_path() / "link";
        std::filesystem::create_symlink(server.remote(), link);
        const CXRef<HALModel> hal = HALModel::initWithDriver(PipeWireDriver::initWithRemote(link));
        for (const bool isMounted : {false, canMount}) {
            server.kill();
            std::filesystem::remove_all(server.folder());
            EXPECT_TRUE(eventually([&] { return readDevices(*hal).empty(); }));
            std::filesystem::create_directory(server.folder());
            sleepForMilliseconds(50); // until the new folder is watched
            EXPECT_TRUE(!isMounted || mount("none", server.folder().c_str(), "tmpfs", 0, nullptr) == 0);
            server.start();
            TestClient client(server.remote());
            client.plug({.name = "sink"});
            EXPECT_NE(waitForDevice(*hal, "sink"), kAudioObjectUnknown) << "mounted: " << isMounted;
        }
        umount2(server.folder().c_str(), MNT_DETACH);
    });
}

using PipeWireServerTest = PipeWireTest;

// Every call returns: the time limit of the test is the judge.
TEST_F(PipeWireServerTest, keepsNobodyWaitingWhileItHangs)
{
    const AudioObjectID device = plug({.name = "sink"});
    CycleWitness witness;
    auto proc = std::make_unique<RunningProc>(*hal, device, witnessing(witness));
    ASSERT_TRUE(witness.waitForMore());

    server.hang();
    const auto volume = at(kAudioDevicePropertyVolumeScalar, output);
    constexpr HALStatus failed = kAudioHardwareUnspecifiedError;
    EXPECT_EQ(readValue<float>(*hal, device, volume), 1.0F);
    EXPECT_EQ(writeValue(*hal, device, volume, 0.5F), failed);
    EXPECT_EQ(writeValue(*hal, device, at(kAudioDevicePropertyMute, output), 1U), failed);
    EXPECT_EQ(writeValue(*hal, device, at(kAudioDevicePropertyBufferFrameSize), 256U), failed);
    proc.reset();
    RunningProc(*hal, device, witnessing(witness), failed);
    EXPECT_TRUE(readDevices(*modelOver(server)).empty());

    server.resume();
    EXPECT_TRUE(eventually([&] { return readValue<float>(*hal, device, volume) == 0.5F; }))
        << "requests made meanwhile are carried out";
    proc = std::make_unique<RunningProc>(*hal, device, witnessing(witness));
    EXPECT_TRUE(witness.waitForMore());
    proc.reset();
    server.hang();
    hal = nullptr; // does not wait either
    server.resume();
}

/// Listens in place of a server and sends `bytes` on each of eight connections, then closes it if `hangsUp`.
/// Returns the seconds between the first and the last.
double talkNonsense(const std::string& path, const std::string& bytes, bool hangsUp)
{
    sockaddr_un address{.sun_family = AF_UNIX, .sun_path = {}};
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    unlink(path.c_str());
    std::vector<int> open{socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0)};
    EXPECT_EQ(bind(open[0], reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
    EXPECT_EQ(listen(open[0], 8), 0);
    std::chrono::steady_clock::time_point first;
    for (int count = 0; count < 8; ++count) { // if fewer come, the time limit of the test is the judge
        const int connection = accept4(open[0], nullptr, nullptr, SOCK_CLOEXEC);
        first = count == 0 ? std::chrono::steady_clock::now() : first;
        send(connection, bytes.data(), bytes.size(), MSG_NOSIGNAL);
        if (hangsUp)
            close(connection); // without reading what was sent
        else
            open.push_back(connection);
    }
    const std::chrono::duration<double> length = std::chrono::steady_clock::now() - first;
    std::ranges::for_each(open, close);
    return length.count();
}

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
    const std::tuple<const char*, std::string, bool> rows[] = {
        // why, bytes, hangs up
        {"another protocol", "GET / HTTP/1.1\r\nHost: localhost\r\nAccept: */*\r\n", false},
        {"more descriptors than there can be", {"\0\0\0\0\x08\0\0\0\0\0\0\0\xFF\xFF\xFF\x7F", 16}, false},
        {"an end in the middle of a conversation", manyDone(100000), true},
    };
    for (const auto& [why, bytes, hangsUp] : rows) {
        SCOPED_TRACE(why);
        PrivateServer server;
        server.kill();
        auto nonsense = std::async(std::launch::async, talkNonsense, server.remote(), bytes, hangsUp);
        const CXRef<HALModel> hal = modelOver(server);
        EXPECT_TRUE(readDevices(*hal).empty());
        EXPECT_GT(nonsense.get(), 0.3) << "tries again, after pauses that grow";
        server.start();
        TestClient client(server.remote());
        client.plug({.name = "sink"});
        EXPECT_NE(waitForDevice(*hal, "sink"), kAudioObjectUnknown);
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
        const RunningProc proc(*hal, before, witnessing(witness), std::nullopt);
        EXPECT_TRUE(eventually([&] {
            const AudioObjectID now = deviceWithUID(*hal, "wide");
            return now != kAudioObjectUnknown && now != before;
        })) << "the connection is lost, and made again";
    }
    const RunningProc proc(*hal, waitForDevice(*hal, "wide"), witnessing(witness));
    EXPECT_TRUE(witness.waitForMore());
}

TEST_F(PipeWireServerTest, runsFortyDevicesWithAThousandDescriptors)
{
    const DescriptorLimit limit(1024);
    std::array<CycleWitness, 40> witnesses;
    std::deque<RunningProc> procs;
    for (CycleWitness& each : witnesses)
        procs.emplace_back(*hal, plug({.name = "sink" + std::to_string(procs.size())}), witnessing(each));
    for (const CycleWitness& each : witnesses)
        EXPECT_TRUE(each.waitForMore());
}

// With too few descriptors at the first use there are no devices, but no crash or exception; devices appear
// when more descriptors are available.
TEST(PipeWireServer, isFoundWhenThereAreDescriptorsAtLast)
{
#ifdef __SANITIZE_ADDRESS__
    GTEST_SKIP() << "the undefined-behaviour sanitizer needs descriptors to look at virtual tables";
#endif
    PrivateServer server;
    inChild([&] {
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
    });
}

// While a client that owns a bound object does not reply, the server reads nothing from us, and if it then goes,
// nothing any more.
TEST(PipeWireServer, isConnectedAnewIfItReadsNoMore)
{
    for (const bool isConnectedBefore : {false, true}) {
        SCOPED_TRACE(isConnectedBefore);
        PrivateServer server;
        TestClient client(server.remote()), owner(server.remote());
        client.plug({.name = "sink"});
        CXRef<HALModel> hal = isConnectedBefore ? modelOver(server) : nullptr;
        const AudioObjectID before = hal ? waitForDevice(*hal, "sink") : kAudioObjectUnknown;
        server.hang(); // until the owner is locked
        const ExportedMetadata metadata(owner);
        sleepForMilliseconds(300); // until the request for the object has been sent
        owner.locked([&] {
            server.resume();
            const NodeProperties defaults{{PW_KEY_METADATA_NAME, "default"}};
            EXPECT_TRUE(
                eventually([&] { return client.idsOf(PW_TYPE_INTERFACE_Metadata, defaults).size() == 2; }));
            hal = hal ? hal : modelOver(server);
            EXPECT_EQ(readDevices(*hal).empty(), !isConnectedBefore);
            sleepForMilliseconds(100);
            metadata.destroy(); // the only event
        });
        EXPECT_TRUE(eventually([&] {
            const AudioObjectID now = deviceWithUID(*hal, "sink");
            return now != kAudioObjectUnknown && now != before;
        }));
    }
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
    const std::jthread user(
        [&](const std::stop_token& end) { useDevices(*hal, [&] { return end.stop_requested(); }); });
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
