#include "FakedCard.h"

#include "FakedPcm.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <sound/tlv.h>

namespace {

constexpr int mixer = SNDRV_CTL_ELEM_IFACE_MIXER, jack = SNDRV_CTL_ELEM_IFACE_CARD;
constexpr int integer = SNDRV_CTL_ELEM_TYPE_INTEGER, boolean = SNDRV_CTL_ELEM_TYPE_BOOLEAN;
constexpr int choice = SNDRV_CTL_ELEM_TYPE_ENUMERATED;

const std::vector<FakedCard::Control> usualControls{
    {mixer, "Master Playback Volume", integer, 2, 64, -6400, {48, 48}},
    {mixer, "Master Playback Switch", boolean, 2, 1, 0, {1, 1}},
    {mixer, "Capture Volume", integer, 2, 30, -1500, {15, 15}},
    {mixer, "Capture Switch", boolean, 2, 1, 0, {1, 1}},
    {mixer, "Capture Source", choice, 1, 1, 0, {0, 0}},
    {jack, "Headphone Jack", boolean, 1, 1, 0, {0, 0}},
};

template <size_t size> void setText(unsigned char (&field)[size], const std::string& text)
{
    std::memset(field, 0, size);
    std::memcpy(field, text.data(), std::min(text.size(), size - 1));
}

} // namespace

int64_t fakedNow()
{
    timespec time{};
    clock_gettime(CLOCK_MONOTONIC, &time);
    return time.tv_sec * 1'000'000'000 + time.tv_nsec;
}

timespec fakedTime(int64_t nanoseconds)
{
    return {nanoseconds / 1'000'000'000, nanoseconds % 1'000'000'000};
}

FakedCard::FakedCard(int cardNumber, const FakedCardOptions& cardOptions)
    : number(cardNumber), options(cardOptions), controls(usualControls)
{
    setFault(FakedFault::Busy, options.isBusy);
    controls[0].name = options.volumeNames[0];
    controls[2].name = options.volumeNames[1];
}

// ---- The clock

int64_t FakedCard::timeOf(double frame) const
{
    return _time + static_cast<int64_t>(std::ceil((frame - _frame) / _framesPerNanosecond()));
}

void FakedCard::setRate(unsigned rate)
{
    update();
    _rate = rate;
}

void FakedCard::setFault(FakedFault fault, bool isThere)
{
    update();
    _faults[static_cast<size_t>(fault)] = isThere;
}

void FakedCard::update()
{
    const int64_t now = fakedNow();
    const int64_t passed = now - std::exchange(_time, now);
    double last = _frame + static_cast<double>(has(FakedFault::Stuck) ? 0 : passed) * _framesPerNanosecond();
    for (const FakedPcm* pcm : pcms)
        if (options.isElastic)
            last = std::min(last, pcm->lastFrameBeforeOverload());
    _frame = std::max(_frame, last);
    for (const bool isCapture : {false, true}) // playback first: capture copies the played frames
        for (FakedPcm* pcm : pcms)
            if (pcm->isCapture == isCapture)
                pcm->advance(now);
}

// ---- PCMs and controls

bool FakedCard::hasPcm(unsigned pcm, bool isCapture) const
{
    return pcm < options.pcmCount && (isCapture ? options.capture : options.playback) > 0;
}

const FakedPcm* FakedCard::openPcm(unsigned pcm, bool isCapture) const
{
    const auto found = std::ranges::find_if(
        pcms, [&](const FakedPcm* each) { return each->number == pcm && each->isCapture == isCapture; });
    return found == pcms.end() ? nullptr : *found;
}

bool FakedCard::isInUse(unsigned pcm, bool isCapture) const
{
    return has(FakedFault::Busy) || openPcm(pcm, isCapture);
}

int FakedCard::describe(snd_pcm_info& info, unsigned pcm, bool isCapture) const
{
    if (!hasPcm(pcm, isCapture))
        return -ENOENT;
    info.device = pcm;
    info.stream = isCapture;
    info.card = number;
    setText(info.id, "Faked PCM " + std::to_string(pcm));
    setText(info.name, "Faked PCM " + std::to_string(pcm));
    info.subdevices_count = 1;
    info.subdevices_avail = isInUse(pcm, isCapture) ? 0 : 1;
    return 0;
}

void FakedCard::_describe(snd_ctl_card_info& info) const
{
    info = {};
    info.card = number;
    setText(info.id, "Faked");
    setText(info.driver, "Faked");
    setText(info.name, options.name);
    setText(info.longname, options.longName);
    setText(info.components, options.components);
}

void FakedCard::name(unsigned control, snd_ctl_elem_id& id) const
{
    id = {};
    id.numid = control;
    if (control > controls.size()) // one that has been removed
        return;
    id.iface = controls[control - 1].interface;
    setText(id.name, controls[control - 1].name);
}

void FakedCard::_describe(snd_ctl_elem_info& info) const
{
    const Control& control = controls.at(info.id.numid - 1);
    info.type = control.type;
    info.count = control.count;
    info.access = SNDRV_CTL_ELEM_ACCESS_READ |
                  (control.interface == mixer ? SNDRV_CTL_ELEM_ACCESS_WRITE : 0U) |
                  (control.minDecibels ? SNDRV_CTL_ELEM_ACCESS_TLV_READ : 0U);
    info.owner = -1;
    if (control.type == choice) {
        info.value.enumerated.items = options.isHostile ? 4'000'000'000U : 2;
        std::strcpy(info.value.enumerated.name, info.value.enumerated.item == 0 ? "Mic" : "Line");
    } else {
        info.value.integer.min = options.isHostile ? control.max : 0;
        info.value.integer.max = options.isHostile ? 0 : control.max;
        info.value.integer.step = 0;
    }
}

int FakedCard::_transfer(snd_ctl_elem_value& value, bool isWrite)
{
    Control& control = controls.at(value.id.numid - 1);
    int hasChanged = 0;
    for (unsigned i = 0; i < control.count; ++i) {
        long& step = value.value.integer.value[i]; // the number of an item is its lower half
        const long written = control.type == choice ? step & UINT32_MAX : step;
        const long wanted = isWrite ? written : control.value[i];
        if (wanted < 0 || wanted > control.max)
            return -EINVAL;
        hasChanged |= std::exchange(control.value[i], wanted) != wanted;
        step = options.isHostile ? (1L << 60) + 77 : wanted;
    }
    return hasChanged;
}

int FakedCard::ioctl(unsigned long request, void* argument)
{
    if (has(FakedFault::NoMemory))
        return -ENOMEM;
    auto& value = *static_cast<int*>(argument);
    switch (request) {
    case SNDRV_CTL_IOCTL_PVERSION:
        value = SNDRV_CTL_VERSION;
        return 0;
    case SNDRV_CTL_IOCTL_CARD_INFO:
        _describe(*static_cast<snd_ctl_card_info*>(argument));
        return 0;
    case SNDRV_CTL_IOCTL_PCM_NEXT_DEVICE:
        value = value + 1 < static_cast<int>(options.pcmCount) ? value + 1 : options.isHostile ? 0 : -1;
        return 0;
    case SNDRV_CTL_IOCTL_PCM_PREFER_SUBDEVICE:
    case SNDRV_CTL_IOCTL_SUBSCRIBE_EVENTS: // changes are always announced
        return 0;
    case SNDRV_CTL_IOCTL_PCM_INFO: {
        auto& info = *static_cast<snd_pcm_info*>(argument);
        return describe(info, info.device, info.stream == SNDRV_PCM_STREAM_CAPTURE);
    }
    case SNDRV_CTL_IOCTL_ELEM_LIST: {
        auto& list = *static_cast<snd_ctl_elem_list*>(argument);
        list.count = static_cast<unsigned>(controls.size());
        list.used = 0;
        for (unsigned i = list.offset; i < controls.size() && list.used < list.space; ++i)
            name(i + 1, list.pids[list.used++]);
        return 0;
    }
    case SNDRV_CTL_IOCTL_ELEM_INFO:
        _describe(*static_cast<snd_ctl_elem_info*>(argument));
        return 0;
    case SNDRV_CTL_IOCTL_ELEM_READ:
    case SNDRV_CTL_IOCTL_ELEM_WRITE:
        return _transfer(*static_cast<snd_ctl_elem_value*>(argument), request == SNDRV_CTL_IOCTL_ELEM_WRITE);
    case SNDRV_CTL_IOCTL_TLV_READ: {
        auto& tlv = *static_cast<snd_ctl_tlv*>(argument);
        const auto min = static_cast<unsigned>(controls.at(tlv.numid - 1).minDecibels);
        const unsigned scale[4] = {SNDRV_CTL_TLVT_DB_SCALE, 8U, min, 100};
        std::memcpy(tlv.tlv, scale, sizeof scale);
        return 0;
    }
    default:
        return -ENOTTY;
    }
}
