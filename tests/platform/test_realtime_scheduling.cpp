#include "RealtimeScheduling.h"

#include "Privileges.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <systemd/sd-bus.h>
#include <thread>
#include <unistd.h>

// Each test leaves its process without privileges, or with other limits: CTest gives every one its own.
namespace dxr {
namespace {

/// A bus of our own, in place of the system's.
class PrivateBus {
public:
    PrivateBus()
    {
        _folder = std::filesystem::temp_directory_path() / ("dxr_bus_" + std::to_string(getpid()));
        std::filesystem::create_directory(_folder);
        const std::string address = "unix:path=" + (_folder / "bus").string();
        std::ofstream(_folder / "bus.conf")
            << "<busconfig><listen>" << address << "</listen><policy context='default'><allow user='*'/>"
            << "<allow own='*'/><allow send_destination='*'/><allow "
               "receive_sender='*'/></policy></busconfig>";
        const std::string config = "--config-file=" + (_folder / "bus.conf").string();
        int ready[2];
        EXPECT_EQ(pipe(ready), 0);
        _daemon = fork();
        if (_daemon == 0) {
            const std::string printTo = "--print-address=" + std::to_string(ready[1]);
            execlp("dbus-daemon", "dbus-daemon", "--nofork", config.c_str(), printTo.c_str(), nullptr);
            _exit(127);
        }
        close(ready[1]);
        char byte = 0;
        _isUp = read(ready[0], &byte, 1) == 1; // its address: it listens
        close(ready[0]);
        setenv("DBUS_SYSTEM_BUS_ADDRESS", address.c_str(), 1);
    }
    ~PrivateBus()
    {
        kill(_daemon, SIGKILL);
        waitpid(_daemon, nullptr, 0);
        std::filesystem::remove_all(_folder);
    }
    PrivateBus(const PrivateBus&) = delete;
    PrivateBus& operator=(const PrivateBus&) = delete;
    bool isUp() const { return _isUp; }

private:
    std::filesystem::path _folder;
    pid_t _daemon = -1;
    bool _isUp = false;
};

/// Stands in for RealtimeKit on that bus, and notes what it was asked. Like that, it looks at the policy first and at the
/// priority then.
class FakeRealtimeKit {
public:
    enum class Policy { Grants, Refuses };
    explicit FakeRealtimeKit(Policy policy) : _policy(policy)
    {
        static const sd_bus_vtable members[] = {
            SD_BUS_VTABLE_START(0),
            SD_BUS_PROPERTY("RTTimeUSecMax", "x", longestRun, 0, SD_BUS_VTABLE_PROPERTY_CONST),
            SD_BUS_PROPERTY("MaxRealtimePriority", "i", highestPriority, 0, SD_BUS_VTABLE_PROPERTY_CONST),
            SD_BUS_METHOD("MakeThreadRealtime", "tu", "", makeThreadRealtime, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_VTABLE_END};
        EXPECT_GE(sd_bus_open_system(&_bus), 0);
        EXPECT_GE(sd_bus_add_object_vtable(_bus, nullptr, "/org/freedesktop/RealtimeKit1",
                                           "org.freedesktop.RealtimeKit1", members, this),
                  0);
        EXPECT_GE(sd_bus_request_name(_bus, "org.freedesktop.RealtimeKit1", 0), 0);
        _thread = std::thread([this] {
            while (!_stopped) {
                while (sd_bus_process(_bus, nullptr) > 0) {
                }
                sd_bus_wait(_bus, 10'000);
            }
        });
    }
    ~FakeRealtimeKit()
    {
        _stopped = true;
        _thread.join();
        sd_bus_flush_close_unref(_bus);
    }
    FakeRealtimeKit(const FakeRealtimeKit&) = delete;
    FakeRealtimeKit& operator=(const FakeRealtimeKit&) = delete;

    std::atomic<uint64_t> askedThread{0};
    std::atomic<uint32_t> askedPriority{0};

private:
    static int longestRun(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*,
                          sd_bus_error*)
    {
        return sd_bus_message_append(reply, "x", int64_t{200'000});
    }
    static int highestPriority(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*,
                               sd_bus_error*)
    {
        return sd_bus_message_append(reply, "i", int32_t{20});
    }
    static int makeThreadRealtime(sd_bus_message* call, void* self, sd_bus_error*)
    {
        uint64_t thread = 0;
        uint32_t priority = 0;
        sd_bus_message_read(call, "tu", &thread, &priority);
        if (static_cast<FakeRealtimeKit*>(self)->_policy == Policy::Refuses)
            return sd_bus_reply_method_errorf(call, SD_BUS_ERROR_ACCESS_DENIED, "not for you");
        if (priority == 0)
            return sd_bus_reply_method_errorf(call, SD_BUS_ERROR_FAILED, "no such priority");
        static_cast<FakeRealtimeKit*>(self)->askedThread = thread;
        static_cast<FakeRealtimeKit*>(self)->askedPriority = priority;
        return sd_bus_reply_method_return(call, "");
    }

    const Policy _policy;
    sd_bus* _bus = nullptr;
    std::atomic<bool> _stopped{false};
    std::thread _thread;
};

TEST(RealtimeScheduling, takesAFixedPriorityThatItsChildrenDoNotInherit)
{
    if (makeCurrentThreadRealtime().grant != RealtimeGrant::Fifo)
        GTEST_SKIP() << "needs the privilege to be scheduled in real time";
    EXPECT_EQ(sched_getscheduler(0) & ~SCHED_RESET_ON_FORK, SCHED_FIFO);
    int child = -1;
    std::thread([&] { child = sched_getscheduler(0); }).join();
    EXPECT_EQ(child, SCHED_OTHER);
}

TEST(RealtimeScheduling, asksRealtimeKitWithinTheLimitsItNames)
{
    const PrivateBus bus;
    ASSERT_TRUE(bus.isUp());
    const FakeRealtimeKit kit(FakeRealtimeKit::Policy::Grants);
    giveUpPrivileges();
    EXPECT_EQ(makeCurrentThreadRealtime().grant, RealtimeGrant::RealtimeKit);
    EXPECT_EQ(kit.askedThread, static_cast<uint64_t>(gettid()));
    EXPECT_EQ(kit.askedPriority, 20U);
    rlimit limit{};
    getrlimit(RLIMIT_RTTIME, &limit);
    EXPECT_LE(limit.rlim_max, 200'000U) << "RealtimeKit refuses processes without this limit";
}

TEST(RealtimeScheduling, leavesTheProcessAsItWasWhenRealtimeKitRefuses)
{
    const PrivateBus bus;
    ASSERT_TRUE(bus.isUp());
    const FakeRealtimeKit kit(FakeRealtimeKit::Policy::Refuses);
    giveUpPrivileges();
    rlimit before{};
    getrlimit(RLIMIT_RTTIME, &before);
    const RealtimeOutcome outcome = makeCurrentThreadRealtime();
    EXPECT_EQ(outcome.grant, RealtimeGrant::None);
    EXPECT_EQ(outcome.error, EACCES);
    rlimit after{};
    getrlimit(RLIMIT_RTTIME, &after);
    EXPECT_EQ(after.rlim_cur, before.rlim_cur);
    EXPECT_EQ(after.rlim_max, before.rlim_max) << "without privileges it could not be raised again";
}

TEST(RealtimeScheduling, goesOnWithoutAGrantWhereThereIsNoRealtimeKit)
{
    giveUpPrivileges();
    setenv("DBUS_SYSTEM_BUS_ADDRESS", "unix:path=/nonexistent", 1);
    EXPECT_EQ(makeCurrentThreadRealtime().grant, RealtimeGrant::None);
    EXPECT_EQ(sched_getscheduler(0), SCHED_OTHER);
}

// A bus that takes the call and never says a word. CTest's own limit ends a wait that is not bounded.
TEST(RealtimeScheduling, doesNotWaitLongForABusThatIsStuck)
{
    giveUpPrivileges();
    const std::string path = testing::TempDir() + "dxr_stuck_" + std::to_string(getpid());
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{AF_UNIX, {}};
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(listener, 4), 0);
    setenv("DBUS_SYSTEM_BUS_ADDRESS", ("unix:path=" + path).c_str(), 1);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(makeCurrentThreadRealtime().grant, RealtimeGrant::None);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15))
        << "half a minute without a limit";
    close(listener);
    unlink(path.c_str());
}

} // namespace
} // namespace dxr
