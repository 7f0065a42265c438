#include "RealtimeScheduling.h"

#include "PrivateBus.h"
#include "Privileges.h"

#include <gtest/gtest.h>

#include <chrono>
#include <sched.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <systemd/sd-bus.h>
#include <thread>
#include <unistd.h>

// Each test drops its process's privileges or changes its limits; CTest runs each in a separate process.
namespace dxr {
namespace {

constexpr const char* systemBus = "DBUS_SYSTEM_BUS_ADDRESS";

/// A fake RealtimeKit on the private bus.
class FakeRealtimeKit {
public:
    explicit FakeRealtimeKit(bool grants) : _service{grants}
    {
        static const sd_bus_vtable members[] = {
            SD_BUS_VTABLE_START(0),
            SD_BUS_PROPERTY("RTTimeUSecMax", "x", nullptr, offsetof(Service, maxMicroseconds), 0),
            SD_BUS_PROPERTY("MaxRealtimePriority", "i", nullptr, offsetof(Service, maxPriority), 0),
            SD_BUS_METHOD("MakeThreadRealtime", "tu", "", makeThreadRealtime, SD_BUS_VTABLE_UNPRIVILEGED),
            SD_BUS_VTABLE_END};
        const char* const name = "org.freedesktop.RealtimeKit1";
        EXPECT_GE(sd_bus_open_system(&_bus), 0);
        EXPECT_GE(sd_bus_add_object_vtable(_bus, nullptr, "/org/freedesktop/RealtimeKit1", name, members,
                                           &_service),
                  0);
        EXPECT_GE(sd_bus_request_name(_bus, name, 0), 0);
        _thread = std::jthread([this](const std::stop_token& stop) {
            while (!stop.stop_requested())
                if (sd_bus_process(_bus, nullptr) <= 0)
                    sd_bus_wait(_bus, 10'000);
        });
    }
    ~FakeRealtimeKit()
    {
        _thread = {}; // ends it
        sd_bus_flush_close_unref(_bus);
    }
    FakeRealtimeKit(const FakeRealtimeKit&) = delete;
    FakeRealtimeKit& operator=(const FakeRealtimeKit&) = delete;

    /// The thread and priority of the last call.
    std::pair<uint64_t, uint32_t> granted() const { return {_service.thread, _service.priority}; }

private:
    struct Service {
        bool grants;
        int64_t maxMicroseconds = 200'000;
        int32_t maxPriority = 20;
        std::atomic<uint64_t> thread{0};
        std::atomic<uint32_t> priority{0};
    };
    static int makeThreadRealtime(sd_bus_message* call, void* userData, sd_bus_error*)
    {
        Service& service = *static_cast<Service*>(userData);
        uint64_t thread = 0;
        uint32_t priority = 0;
        sd_bus_message_read(call, "tu", &thread, &priority);
        if (!service.grants)
            return sd_bus_reply_method_errorf(call, SD_BUS_ERROR_ACCESS_DENIED, "not for you");
        service.thread = thread;
        service.priority = priority;
        return sd_bus_reply_method_return(call, "");
    }

    Service _service;
    sd_bus* _bus = nullptr;
    std::jthread _thread;
};

rlimit runtimeLimit()
{
    rlimit limit{};
    getrlimit(RLIMIT_RTTIME, &limit);
    return limit;
}

TEST(RealtimeScheduling, takesAFixedPriorityThatItsChildrenDoNotInherit)
{
    if (makeCurrentThreadRealtime().grant != RealtimeGrant::Fifo)
        GTEST_SKIP() << "needs the privilege to be scheduled in real time";
    EXPECT_EQ(sched_getscheduler(0) & ~SCHED_RESET_ON_FORK, SCHED_FIFO);
    int child = -1;
    std::thread([&] { child = sched_getscheduler(0); }).join();
    EXPECT_EQ(child, SCHED_OTHER);
}

TEST(RealtimeScheduling, asksRealtimeKitWithinItsLimits)
{
    const PrivateBus bus(systemBus);
    const FakeRealtimeKit kit(true);
    giveUpPrivileges();
    EXPECT_EQ(makeCurrentThreadRealtime().grant, RealtimeGrant::RealtimeKit);
    EXPECT_EQ(kit.granted(), std::pair(static_cast<uint64_t>(gettid()), 20U));
    EXPECT_LE(runtimeLimit().rlim_cur, 200'000U) << "RealtimeKit refuses processes without this limit";
    EXPECT_LE(runtimeLimit().rlim_max, 200'000U);
}

TEST(RealtimeScheduling, leavesTheProcessAsItWasWhenRealtimeKitRefuses)
{
    const PrivateBus bus(systemBus);
    const FakeRealtimeKit kit(false);
    giveUpPrivileges();
    const rlimit before = runtimeLimit();
    const RealtimeOutcome outcome = makeCurrentThreadRealtime();
    EXPECT_EQ(outcome.grant, RealtimeGrant::None);
    EXPECT_EQ(outcome.error, EACCES);
    EXPECT_EQ(runtimeLimit().rlim_cur, before.rlim_cur);
    EXPECT_EQ(runtimeLimit().rlim_max, before.rlim_max) << "without privileges it could not be raised again";
}

// The bus accepts the call and never replies: half a minute without a limit.
TEST(RealtimeScheduling, doesNotWaitLongForABusThatIsStuck)
{
    giveUpPrivileges();
    const std::string path = testing::TempDir() + "dxr_stuck_" + std::to_string(getpid());
    const int listener = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address{AF_UNIX, {}};
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr*>(&address), sizeof address), 0);
    ASSERT_EQ(listen(listener, 4), 0);
    setenv(systemBus, ("unix:path=" + path).c_str(), 1);
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(makeCurrentThreadRealtime().grant, RealtimeGrant::None);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15));
    EXPECT_EQ(sched_getscheduler(0), SCHED_OTHER);
    close(listener);
    unlink(path.c_str());
}

} // namespace
} // namespace dxr
