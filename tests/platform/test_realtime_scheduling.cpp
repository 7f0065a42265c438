#include "RealtimeScheduling.h"

#include "PrivateBus.h"
#include "Privileges.h"

#include <chrono>
#include <sched.h>
#include <systemd/sd-bus.h>
#include <thread>

// Each test drops its process's privileges or changes its limits; CTest runs each in a separate process.
namespace dxr {
namespace {

constexpr const char* systemBus = "DBUS_SYSTEM_BUS_ADDRESS";

/// A fake RealtimeKit on the private bus.
class FakeRealtimeKit {
public:
    FakeRealtimeKit()
    {
        EXPECT_GE(sd_bus_open_system(&_bus), 0);
        EXPECT_GE(sd_bus_add_object(_bus, nullptr, "/org/freedesktop/RealtimeKit1", answer, this), 0);
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

    std::atomic<bool> grants{false};
    std::atomic<uint64_t> grantedThread{0};   ///< of the last call
    std::atomic<uint32_t> grantedPriority{0}; ///< of the last call

private:
    static constexpr const char* name = "org.freedesktop.RealtimeKit1";

    static int answer(sd_bus_message* call, void* userData, sd_bus_error*)
    {
        auto& kit = *static_cast<FakeRealtimeKit*>(userData);
        if (sd_bus_message_is_method_call(call, "org.freedesktop.DBus.Properties", "Get") > 0) {
            const char *interface = nullptr, *property = nullptr;
            sd_bus_message_read(call, "ss", &interface, &property);
            return std::string_view(property) == "RTTimeUSecMax"
                       ? sd_bus_reply_method_return(call, "v", "x", int64_t{200'000})
                       : sd_bus_reply_method_return(call, "v", "i", 20); // MaxRealtimePriority
        }
        if (sd_bus_message_is_method_call(call, name, "MakeThreadRealtime") <= 0)
            return 0; // an unknown method
        if (!kit.grants)
            return sd_bus_reply_method_errorf(call, SD_BUS_ERROR_ACCESS_DENIED, "not for you");
        uint64_t thread = 0;
        uint32_t priority = 0;
        sd_bus_message_read(call, "tu", &thread, &priority);
        kit.grantedThread = thread;
        kit.grantedPriority = priority;
        return sd_bus_reply_method_return(call, "");
    }

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

TEST(RealtimeScheduling, asksRealtimeKitWithinItsLimitsAndLeavesTheProcessAsItWasWhenItRefuses)
{
    const PrivateBus bus(systemBus);
    FakeRealtimeKit kit;
    giveUpPrivileges();
    const rlimit before = runtimeLimit();
    const RealtimeOutcome refusal = makeCurrentThreadRealtime();
    EXPECT_EQ(refusal.grant, RealtimeGrant::None);
    EXPECT_EQ(refusal.error, EACCES);
    EXPECT_EQ(runtimeLimit().rlim_cur, before.rlim_cur);
    EXPECT_EQ(runtimeLimit().rlim_max, before.rlim_max) << "without privileges it could not be raised again";

    kit.grants = true;
    EXPECT_EQ(makeCurrentThreadRealtime().grant, RealtimeGrant::RealtimeKit);
    EXPECT_EQ(kit.grantedThread, static_cast<uint64_t>(gettid()));
    EXPECT_EQ(kit.grantedPriority, 20U);
    EXPECT_LE(runtimeLimit().rlim_cur, 200'000U) << "RealtimeKit refuses processes without this limit";
    EXPECT_LE(runtimeLimit().rlim_max, 200'000U);
}

// The bus accepts the connection and never replies: half a minute without a limit.
TEST(RealtimeScheduling, doesNotWaitLongForABusThatIsStuck)
{
    const PrivateBus bus(systemBus);
    bus.freeze();
    giveUpPrivileges();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(makeCurrentThreadRealtime().grant, RealtimeGrant::None);
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(15));
    EXPECT_EQ(sched_getscheduler(0), SCHED_OTHER);
}

} // namespace
} // namespace dxr
