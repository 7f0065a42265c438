#include "AlsaReservation.h"

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <utility>

namespace {

constexpr const char* interface = "org.freedesktop.ReserveDevice1";
// Higher than a sound server's, which releases cards to programs that want exclusive use.
constexpr int32_t priority = 10;
constexpr uint64_t waitMicroseconds = 1'000'000;
constexpr std::chrono::milliseconds yieldTime{500};

int readPriority(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*, sd_bus_error*)
{
    return sd_bus_message_append(reply, "i", priority);
}

int readName(sd_bus*, const char*, const char*, const char*, sd_bus_message* reply, void*, sd_bus_error*)
{
    return sd_bus_message_append(reply, "s", "dxr");
}

} // namespace

const sd_bus_vtable AlsaReservation::methods[] = {
    SD_BUS_VTABLE_START(0),
    SD_BUS_METHOD(
        "RequestRelease", "i", "b",
        [](sd_bus_message* message, void* data, sd_bus_error*) {
            auto* const self = static_cast<AlsaReservation*>(data);
            int32_t theirs = 0;
            if (const int error = sd_bus_message_read(message, "i", &theirs); error < 0)
                return error;
            const bool isFree = self->_holders.empty();
            if (isFree || theirs <= priority || self->_request)
                return sd_bus_reply_method_return(message, "b", static_cast<int>(isFree));
            self->_request = sd_bus_message_ref(message); // process() replies once the card is closed
            return 1;
        },
        SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_PROPERTY("Priority", "i", readPriority, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("ApplicationName", "s", readName, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_PROPERTY("ApplicationDeviceName", "s", readName, 0, SD_BUS_VTABLE_PROPERTY_CONST),
    SD_BUS_VTABLE_END,
};

AlsaReservation::AlsaReservation(int cardNumber)
    : _name(std::string(interface) + ".Audio" + std::to_string(cardNumber)),
      _path("/org/freedesktop/ReserveDevice1/Audio" + std::to_string(cardNumber))
{}

AlsaReservation::~AlsaReservation()
{
    _disconnect();
}

/// Connects to the bus in at most a second; a synchronous call would wait half a minute for a stuck bus.
bool AlsaReservation::_connect()
{
    if (_bus && sd_bus_is_open(_bus) > 0)
        return true;
    _disconnect();
    if (sd_bus_open_user(&_bus) < 0) {
        _bus = nullptr;
        return false;
    }
    sd_bus_set_method_call_timeout(_bus, waitMicroseconds);
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::microseconds(waitMicroseconds);
    for (int processed = 0; sd_bus_is_ready(_bus) == 0 && processed >= 0;) {
        if (std::chrono::steady_clock::now() >= deadline)
            break;
        processed = sd_bus_process(_bus, nullptr);
        if (processed == 0)
            sd_bus_wait(_bus, waitMicroseconds / 10);
    }
    if (sd_bus_is_ready(_bus) > 0 &&
        sd_bus_add_object_vtable(_bus, nullptr, _path.c_str(), interface, methods, this) >= 0)
        return true;
    _disconnect();
    return false;
}

void AlsaReservation::_disconnect()
{
    sd_bus_message_unref(std::exchange(_request, nullptr));
    sd_bus_close_unref(std::exchange(_bus, nullptr)); // does not flush, which could wait
}

int AlsaReservation::acquire(Holder& holder)
{
    const std::scoped_lock lock(_mutex);
    const int result = _holders.empty() && _connect() ? _acquireName() : 0;
    if (result >= 0)
        _holders.push_back(&holder);
    return result;
}

int AlsaReservation::_acquireName()
{
    if (sd_bus_request_name(_bus, _name.c_str(), SD_BUS_NAME_ALLOW_REPLACEMENT) != -EEXIST)
        return 0; // other failures of the bus do not prevent the use of the card
    sd_bus_message* reply = nullptr;
    int isReleased = 0; // 1: the owner has closed the card
    if (sd_bus_call_method(_bus, _name.c_str(), _path.c_str(), interface, "RequestRelease", nullptr, &reply,
                           "i", priority) >= 0)
        sd_bus_message_read(reply, "b", &isReleased);
    sd_bus_message_unref(reply);
    const uint64_t flags = SD_BUS_NAME_ALLOW_REPLACEMENT | SD_BUS_NAME_REPLACE_EXISTING;
    return isReleased == 0 || sd_bus_request_name(_bus, _name.c_str(), flags) == -EEXIST ? -EBUSY : 1;
}

void AlsaReservation::release(Holder& holder)
{
    const std::scoped_lock lock(_mutex);
    if (std::erase(_holders, &holder) == 0 || !_holders.empty())
        return;
    if (_bus)
        sd_bus_release_name(_bus, _name.c_str());
    _released.notify_all();
}

int AlsaReservation::descriptor()
{
    const std::scoped_lock lock(_mutex);
    return _bus ? sd_bus_get_fd(_bus) : -1;
}

void AlsaReservation::process()
{
    std::unique_lock lock(_mutex);
    while (_bus && sd_bus_process(_bus, nullptr) > 0)
        ;
    if (_bus && sd_bus_is_open(_bus) <= 0)
        return _disconnect();
    if (!_request)
        return;
    for (Holder* const holder : _holders)
        holder->yield();
    _released.wait_for(lock, yieldTime, [this] { return _holders.empty(); });
    if (sd_bus_message* const request = std::exchange(_request, nullptr)) {
        sd_bus_reply_method_return(request, "b", static_cast<int>(_holders.empty()));
        sd_bus_message_unref(request);
        sd_bus_flush(_bus);
    }
}
