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

namespace dxr {

namespace {

// Below the sound server's data thread (88), so that it can start a cycle while this thread finishes one.
constexpr int fifoPriority = 80;

constexpr const char* serviceName = "org.freedesktop.RealtimeKit1";
constexpr const char* objectPath = "/org/freedesktop/RealtimeKit1";
constexpr uint64_t replyMicroseconds = 1'000'000;

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
    // Reset on fork: threads that this one starts get ordinary scheduling.
    return sched_setscheduler(0, SCHED_FIFO | SCHED_RESET_ON_FORK, &parameters) == 0;
}

/// Lowers the process's limit on the time that a real-time thread may run without sleeping: RealtimeKit
/// serves only processes whose limit lets the kernel end such a thread. The destructor restores the limit
/// unless keep() was called. Without privileges the kernel does not allow raising the hard limit again, so do
/// not lower it for a request that is known to fail.
class LoweredRuntimeLimit {
public:
    explicit LoweredRuntimeLimit(int64_t microseconds)
    {
        if (getrlimit(RLIMIT_RTTIME, &_before) != 0)
            return;
        const auto wanted = static_cast<rlim_t>(microseconds);
        const rlimit lowered{std::min(_before.rlim_cur, wanted), std::min(_before.rlim_max, wanted)};
        _isLowered = setrlimit(RLIMIT_RTTIME, &lowered) == 0;
    }
    ~LoweredRuntimeLimit()
    {
        if (_isLowered && !_isKept)
            setrlimit(RLIMIT_RTTIME, &_before);
    }
    LoweredRuntimeLimit(const LoweredRuntimeLimit&) = delete;
    LoweredRuntimeLimit& operator=(const LoweredRuntimeLimit&) = delete;

    bool isLowered() const noexcept { return _isLowered; }
    void keep() noexcept { _isKept = true; }

private:
    rlimit _before{};
    bool _isLowered = false;
    bool _isKept = false;
};

uint64_t nowMicroseconds()
{
    return HostClock::nowTicks() / 1000;
}

/// Connects to the system bus. Returns null if it is not available or not ready by the deadline. sd-bus's own
/// function to open it would wait half a minute for a bus that does not respond.
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

/// RealtimeKit's reply.
struct Reply {
    int error;      ///< an errno value; 0 on success
    bool isRefusal; ///< refused by policy, not impossible
};

Reply askFor(uint32_t priority, sd_bus* bus)
{
    sd_bus_error error{};
    const int result = sd_bus_call_method(bus, serviceName, objectPath, serviceName, "MakeThreadRealtime",
                                          &error, nullptr, "tu", static_cast<uint64_t>(gettid()), priority);
    const bool isRefusal = sd_bus_error_has_name(&error, SD_BUS_ERROR_FAILED) == 0;
    sd_bus_error_free(&error);
    return {std::max(0, -result), result < 0 && isRefusal};
}

/// `kernelError` is returned if RealtimeKit is not available.
RealtimeOutcome askRealtimeKit(int kernelError)
{
    const Bus bus = openSystemBus(nowMicroseconds() + replyMicroseconds);
    if (!bus)
        return {RealtimeGrant::None, kernelError};
    sd_bus_set_method_call_timeout(bus.get(), replyMicroseconds);
    int64_t maxMicroseconds = 0;
    int32_t maxPriority = 0;
    if (sd_bus_get_property_trivial(bus.get(), serviceName, objectPath, serviceName, "RTTimeUSecMax", nullptr,
                                    'x', &maxMicroseconds) < 0 ||
        sd_bus_get_property_trivial(bus.get(), serviceName, objectPath, serviceName, "MaxRealtimePriority",
                                    nullptr, 'i', &maxPriority) < 0 ||
        maxPriority < 1)
        return {RealtimeGrant::None, kernelError};
    // First asks for an invalid priority: RealtimeKit checks the user's permission before the priority, so a
    // refusal is known before the limit is lowered.
    constexpr uint32_t noPriority = 0;
    if (const Reply reply = askFor(noPriority, bus.get()); reply.isRefusal)
        return {RealtimeGrant::None, reply.error};
    LoweredRuntimeLimit limit(maxMicroseconds);
    if (!limit.isLowered())
        return {RealtimeGrant::None, errno};
    const Reply reply = askFor(static_cast<uint32_t>(std::min(maxPriority, fifoPriority)), bus.get());
    if (reply.error != 0)
        return {RealtimeGrant::None, reply.error};
    limit.keep();
    return {RealtimeGrant::RealtimeKit, 0};
}

} // namespace

RealtimeOutcome makeCurrentThreadRealtime()
{
    return becomeFifo() ? RealtimeOutcome{RealtimeGrant::Fifo, 0} : askRealtimeKit(errno);
}

} // namespace dxr
