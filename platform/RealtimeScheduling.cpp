#include "RealtimeScheduling.h"

#include "HostClock.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <sched.h>
#include <sys/resource.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

namespace platform {

namespace {

// Below the sound server's own data thread (88): it must be able to start a cycle while we finish one.
constexpr int fifoPriority = 80;

constexpr const char* serviceName = "org.freedesktop.RealtimeKit1";
constexpr const char* objectPath = "/org/freedesktop/RealtimeKit1";
constexpr uint64_t answerMicroseconds = 1'000'000;

struct CloseBus {
    void operator()(sd_bus* bus) const noexcept
    {
        sd_bus_close_unref(bus);
    } // without a flush, which could wait
};
using Bus = std::unique_ptr<sd_bus, CloseBus>;

bool becomeFifo()
{
    sched_param parameters{};
    parameters.sched_priority = fifoPriority;
    // Threads that this one starts are ordinary ones, unless they ask for themselves.
    return sched_setscheduler(0, SCHED_FIFO | SCHED_RESET_ON_FORK, &parameters) == 0;
}

/// RealtimeKit serves only processes that let the kernel end a runaway real-time thread.
bool limitRealtimeTime(int64_t microseconds)
{
    rlimit limit{};
    if (getrlimit(RLIMIT_RTTIME, &limit) != 0)
        return false;
    const auto wanted = static_cast<rlim_t>(microseconds);
    limit.rlim_cur = std::min(limit.rlim_cur, wanted);
    limit.rlim_max = std::min(limit.rlim_max, wanted);
    return setrlimit(RLIMIT_RTTIME, &limit) == 0;
}

uint64_t nowMicroseconds()
{
    return HostClock::nowTicks() / 1000;
}

/// The system bus, ready to be used; null when it is not there, or does not get so far in time. The library's
/// own way of opening it would wait for half a minute for a bus that is stuck.
Bus openSystemBus(uint64_t deadlineMicroseconds)
{
    sd_bus* made = nullptr;
    if (sd_bus_new(&made) < 0)
        return nullptr;
    Bus bus(made);
    const char* address = secure_getenv("DBUS_SYSTEM_BUS_ADDRESS");
    if (sd_bus_set_address(bus.get(), address ? address : "unix:path=/run/dbus/system_bus_socket") < 0 ||
        sd_bus_set_bus_client(bus.get(), 1) < 0 || sd_bus_start(bus.get()) < 0)
        return nullptr;
    while (sd_bus_is_ready(bus.get()) == 0) {
        const uint64_t now = nowMicroseconds();
        const int processed = sd_bus_process(bus.get(), nullptr);
        if (processed < 0 || now >= deadlineMicroseconds)
            return nullptr;
        if (processed == 0)
            sd_bus_wait(bus.get(), deadlineMicroseconds - now);
    }
    return sd_bus_is_ready(bus.get()) > 0 ? std::move(bus) : nullptr;
}

bool askRealtimeKit()
{
    const Bus bus = openSystemBus(nowMicroseconds() + answerMicroseconds);
    if (!bus)
        return false;
    sd_bus_set_method_call_timeout(bus.get(), answerMicroseconds);
    int64_t longestMicroseconds = 0;
    int32_t highestPriority = 0;
    if (sd_bus_get_property_trivial(bus.get(), serviceName, objectPath, serviceName, "RTTimeUSecMax", nullptr,
                                    'x', &longestMicroseconds) < 0 ||
        sd_bus_get_property_trivial(bus.get(), serviceName, objectPath, serviceName, "MaxRealtimePriority",
                                    nullptr, 'i', &highestPriority) < 0)
        return false;
    if (highestPriority < 1 || !limitRealtimeTime(longestMicroseconds))
        return false;
    const auto priority = static_cast<uint32_t>(std::min(highestPriority, fifoPriority));
    return sd_bus_call_method(bus.get(), serviceName, objectPath, serviceName, "MakeThreadRealtime", nullptr,
                              nullptr, "tu", static_cast<uint64_t>(gettid()), priority) >= 0;
}

} // namespace

RealtimeOutcome makeCurrentThreadRealtime()
{
    if (becomeFifo())
        return {RealtimeGrant::Fifo, 0};
    const int refused = errno;
    return askRealtimeKit() ? RealtimeOutcome{RealtimeGrant::RealtimeKit, 0}
                            : RealtimeOutcome{RealtimeGrant::None, refused};
}

} // namespace platform
