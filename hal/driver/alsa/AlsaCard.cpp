#include "AlsaCard.h"

#include "AlsaQuiet.h"
#include "AlsaRun.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <fstream>

namespace {

constexpr size_t maxPcms = 64; // of a card; upper limit of what is listed
constexpr std::chrono::milliseconds yieldTime{500};
constexpr int maxEventsAtOnce = 1000;

/// A text of the kernel's, in a field of `size` bytes, which may lack its end.
std::string text(const char* bytes, size_t size)
{
    return bytes ? std::string(bytes, strnlen(bytes, size)) : std::string();
}

snd_pcm_stream_t streamOf(size_t direction)
{
    return direction == 0 ? SND_PCM_STREAM_CAPTURE : SND_PCM_STREAM_PLAYBACK;
}

} // namespace

CXRef<AlsaCard> AlsaCard::open(int number, int& error)
{
    const AlsaQuiet quiet;
    snd_ctl_t* control = nullptr;
    error = snd_ctl_open(&control, ("hw:" + std::to_string(number)).c_str(), SND_CTL_NONBLOCK);
    if (error < 0)
        return nullptr;
    auto card = CXRef<AlsaCard>::adopt(new AlsaCard(number, control));
    error = snd_ctl_subscribe_events(control, 1);
    if (error >= 0 && snd_ctl_poll_descriptors(control, &card->_descriptor, 1) != 1)
        error = -EIO;
    return error < 0 ? nullptr : card;
}

AlsaCard::AlsaCard(int number, snd_ctl_t* control) : _number(number), _control(control), _reservation(number)
{}

AlsaCard::~AlsaCard()
{
    const AlsaQuiet quiet;
    snd_ctl_close(_control);
}

std::string AlsaCard::pcmName(unsigned pcm) const
{
    return "hw:" + std::to_string(_number) + "," + std::to_string(pcm);
}

std::optional<AlsaCardInfo> AlsaCard::info()
{
    const AlsaQuiet quiet;
    const std::scoped_lock lock(_controlMutex);
    snd_ctl_card_info_t* info = nullptr;
    snd_ctl_card_info_alloca(&info);
    if (snd_ctl_card_info(_control, info) < 0)
        return std::nullopt;
    return AlsaCardInfo{
        text(snd_ctl_card_info_get_id(info), 16), text(snd_ctl_card_info_get_driver(info), 16),
        text(snd_ctl_card_info_get_name(info), 32), text(snd_ctl_card_info_get_longname(info), 80),
        text(snd_ctl_card_info_get_components(info), 128)};
}

std::vector<AlsaPcmInfo> AlsaCard::pcms()
{
    const AlsaQuiet quiet;
    const std::scoped_lock lock(_controlMutex);
    std::vector<AlsaPcmInfo> pcms;
    std::array<bool, 2> hasFirst{};
    snd_pcm_info_t* info = nullptr;
    snd_pcm_info_alloca(&info);
    int number = -1;
    while (pcms.size() < maxPcms) {
        const int last = number;
        if (snd_ctl_pcm_next_device(_control, &number) < 0 || number <= last)
            break;
        AlsaPcmInfo pcm{.number = static_cast<unsigned>(number)};
        for (size_t direction = 0; direction < 2; ++direction) {
            snd_pcm_info_set_device(info, pcm.number);
            snd_pcm_info_set_subdevice(info, 0);
            snd_pcm_info_set_stream(info, streamOf(direction));
            if (snd_ctl_pcm_info(_control, info) < 0)
                continue;
            pcm.id = text(snd_pcm_info_get_id(info), 64);
            pcm.name = text(snd_pcm_info_get_name(info), 80);
            pcm.has[direction] = true;
            pcm.isFirst[direction] = !std::exchange(hasFirst[direction], true);
        }
        if (pcm.has[0] || pcm.has[1])
            pcms.push_back(pcm);
    }
    return pcms;
}

bool AlsaCard::isUsedElsewhere(unsigned pcm, HALDirection direction, bool isOurs)
{
    const AlsaQuiet quiet;
    const std::scoped_lock lock(_controlMutex);
    snd_pcm_info_t* info = nullptr;
    snd_pcm_info_alloca(&info);
    snd_pcm_info_set_device(info, pcm);
    snd_pcm_info_set_subdevice(info, 0);
    snd_pcm_info_set_stream(info, streamOf(static_cast<size_t>(direction)));
    if (snd_ctl_pcm_info(_control, info) < 0)
        return false;
    const unsigned count = snd_pcm_info_get_subdevices_count(info);
    const unsigned free = snd_pcm_info_get_subdevices_avail(info);
    return count - std::min(count, free) > (isOurs ? 1U : 0U);
}

std::optional<AlsaAbilities> AlsaCard::abilitiesInUse(unsigned pcm, HALDirection direction) const
{
    std::ifstream file("/proc/asound/card" + std::to_string(_number) + "/pcm" + std::to_string(pcm) +
                       (direction == HALDirection::Input ? "c" : "p") + "/sub0/hw_params");
    unsigned channels = 0, rate = 0, ring = 0;
    for (std::string line; std::getline(file, line);) { // "rate: 48000 (48000/1)"
        std::sscanf(line.c_str(), "channels: %5u", &channels);
        std::sscanf(line.c_str(), "rate: %7u", &rate);
        std::sscanf(line.c_str(), "buffer_size: %8u", &ring);
    }
    return AlsaPcm::usable(AlsaAbilities{channels, {rate}, 0, ring / 2});
}

AlsaCard::Event AlsaCard::readEvents()
{
    const AlsaQuiet quiet;
    const std::scoped_lock lock(_controlMutex);
    snd_ctl_event_t* event = nullptr;
    snd_ctl_event_alloca(&event);
    auto seen = Event::None;
    for (int i = 0; i < maxEventsAtOnce; ++i) {
        const int result = snd_ctl_read(_control, event);
        if (result == -EAGAIN || result == 0)
            break;
        if (result < 0)
            return Event::Gone;
        if (snd_ctl_event_get_type(event) != SND_CTL_EVENT_ELEM)
            continue;
        const unsigned mask = snd_ctl_event_elem_get_mask(event);
        const bool isList = mask == SND_CTL_EVENT_MASK_REMOVE || (mask & SND_CTL_EVENT_MASK_ADD) != 0 ||
                            (mask & SND_CTL_EVENT_MASK_INFO) != 0;
        seen = isList || seen == Event::Controls ? Event::Controls : Event::Values;
    }
    return seen;
}

// ---- Reservation

int AlsaCard::reserve(AlsaRun& run)
{
    const std::scoped_lock lock(_runsMutex);
    const int result = _runs.empty() ? _reservation.acquire() : 0;
    if (result >= 0)
        _runs.push_back(&run);
    return result;
}

void AlsaCard::unreserve(AlsaRun& run)
{
    const std::scoped_lock lock(_runsMutex);
    if (std::erase(_runs, &run) == 0 || !_runs.empty())
        return;
    _reservation.release();
    _runsChanged.notify_all();
}

int AlsaCard::reservationDescriptor()
{
    const std::scoped_lock lock(_runsMutex);
    return _reservation.descriptor();
}

void AlsaCard::processReservation()
{
    std::unique_lock lock(_runsMutex);
    _reservation.process([&] {
        for (AlsaRun* const run : _runs)
            run->yield();
        _runsChanged.wait_for(lock, yieldTime, [this] { return _runs.empty(); });
    });
}
