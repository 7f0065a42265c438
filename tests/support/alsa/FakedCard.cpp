#include "FakedCard.h"

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <cstring>
#include <ctime>
#include <sound/tlv.h>

namespace {

const char* const sourceNames[] = {"Mic", "Line"};

constexpr int mixer = SNDRV_CTL_ELEM_IFACE_MIXER, jack = SNDRV_CTL_ELEM_IFACE_CARD;
constexpr int integer = SNDRV_CTL_ELEM_TYPE_INTEGER, boolean = SNDRV_CTL_ELEM_TYPE_BOOLEAN;

const std::vector<FakedCard::Control> usualControls{
    {mixer, "Master Playback Volume", integer, 2, 64, true, -6400, {48, 48}},
    {mixer, "Master Playback Switch", boolean, 2, 1, true, 0, {1, 1}},
    {mixer, "Capture Volume", integer, 2, 30, true, -1500, {15, 15}},
    {mixer, "Capture Switch", boolean, 2, 1, true, 0, {1, 1}},
    {mixer, "Capture Source", SNDRV_CTL_ELEM_TYPE_ENUMERATED, 1, 1, true, 0, {0, 0}},
    {jack, "Headphone Jack", boolean, 1, 1, false, 0, {0, 0}},
};

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
    : number(cardNumber), options(cardOptions), controls(usualControls),
      _wireChannels(std::max(options.playback, options.capture)), _wires(options.pcmCount)
{
    setFault(FakedFault::Busy, options.isBusy);
    controls[0].name = options.volumeNames[0];
    controls[2].name = options.volumeNames[1];
    for (Wire& wire : _wires) {
        wire.samples.resize(wireFrames * _wireChannels);
        wire.frames.assign(wireFrames, -1);
    }
}

// ---- The clock

double FakedCard::frameAt(int64_t nanoseconds) const
{
    const double passed = has(FakedFault::Stuck) ? 0.0 : static_cast<double>(nanoseconds - _origin);
    return _originFrame + passed * 1e-9 * _rate * (1.0 + options.partsPerMillion * 1e-6);
}

int64_t FakedCard::timeOf(double frame) const
{
    return _origin + static_cast<int64_t>(std::ceil((frame - _originFrame) * 1e9 /
                                                    (_rate * (1.0 + options.partsPerMillion * 1e-6))));
}

void FakedCard::holdAt(double frame, int64_t nanoseconds)
{
    _originFrame = frame;
    _origin = nanoseconds;
}

void FakedCard::setRate(unsigned rate)
{
    const int64_t now = fakedNow();
    holdAt(frameAt(now), now);
    _rate = rate;
}

void FakedCard::setFault(FakedFault fault, bool isThere)
{
    setRate(_rate);
    _faults[static_cast<size_t>(fault)] = isThere;
    if (fault == FakedFault::InterruptWaits && isThere)
        interruptedWaits = 3;
}

// ---- The wire. Copies do not call memcpy(), which the thread sanitizer would attribute to the program.

void FakedCard::play(unsigned pcm, int64_t frame, const char* samples, unsigned channels, unsigned bytes)
{
    Wire& wire = _wires[pcm];
    const size_t place = static_cast<size_t>(frame) % wireFrames;
    wire.frames[place] = frame;
    for (unsigned channel = 0; channel < std::min(channels, _wireChannels); ++channel, samples += bytes) {
        int32_t& value = wire.samples[place * _wireChannels + channel] = 0;
        std::copy_n(static_cast<const volatile char*>(samples), bytes,
                    reinterpret_cast<char*>(&value) + 4 - bytes);
    }
}

void FakedCard::record(unsigned pcm, int64_t frame, char* samples, unsigned channels, unsigned bytes) const
{
    const Wire& wire = _wires[pcm];
    const size_t place = static_cast<size_t>(frame) % wireFrames;
    for (unsigned channel = 0; channel < std::min(channels, _wireChannels); ++channel, samples += bytes) {
        const int32_t value = wire.frames[place] == frame ? wire.samples[place * _wireChannels + channel] : 0;
        std::copy_n(reinterpret_cast<const char*>(&value) + 4 - bytes, bytes,
                    static_cast<volatile char*>(samples));
    }
}

// ---- Controls

template <size_t size> void FakedCard::_text(unsigned char (&to)[size], const std::string& from) const
{
    std::memset(to, 0, size);
    std::memset(to, 0xFE, options.isHostile ? size - 1 : 0);
    if (!options.isHostile)
        std::memcpy(to, from.data(), std::min(from.size(), size - 1));
}

void FakedCard::name(unsigned control, snd_ctl_elem_id& id) const
{
    id = {};
    id.numid = control;
    id.iface = controls[control - 1].interface;
    _text(id.name, controls[control - 1].name);
    if (options.isHostile) // a suffix that programs look for; all names differ
        std::memcpy(id.name + sizeof id.name - 17, "\xFEPlayback Volume", 16);
    if (options.isHostile)
        id.name[0] = static_cast<unsigned char>(control);
}

/// alsa-lib identifies controls by the numbers from the list.
unsigned FakedCard::_find(const snd_ctl_elem_id& id) const
{
    return id.numid <= controls.size() ? id.numid : 0;
}

void FakedCard::_describe(snd_ctl_card_info& info) const
{
    info = {};
    info.card = number;
    _text(info.id, "Faked");
    _text(info.driver, "Faked");
    _text(info.name, options.name);
    _text(info.longname, options.longName);
    _text(info.mixername, options.name);
    _text(info.components, options.components);
}

void FakedCard::describe(snd_pcm_info& info, unsigned pcm, bool isCapture) const
{
    info.device = pcm;
    info.subdevice = 0;
    info.stream = isCapture;
    info.card = number;
    _text(info.id, "Faked PCM " + std::to_string(pcm));
    _text(info.name, "Faked PCM " + std::to_string(pcm));
    _text(info.subname, "subdevice #0");
    info.subdevices_count = 1;
    info.subdevices_avail = has(FakedFault::Busy) ? 0 : 1;
}

void FakedCard::_describe(snd_ctl_elem_info& info, unsigned number_) const
{
    const Control& control = controls[number_ - 1];
    const unsigned item = info.value.enumerated.item;
    name(number_, info.id);
    info.type = control.type;
    info.count = options.isHostile ? 4'000'000'000U : control.count;
    info.access = SNDRV_CTL_ELEM_ACCESS_READ | (control.isWritable ? SNDRV_CTL_ELEM_ACCESS_WRITE : 0U) |
                  (control.minDecibels ? SNDRV_CTL_ELEM_ACCESS_TLV_READ : 0U);
    info.owner = -1;
    if (control.type == SNDRV_CTL_ELEM_TYPE_ENUMERATED) {
        info.value.enumerated.items = options.isHostile ? 4'000'000'000U : 2;
        info.value.enumerated.item = std::min(item, 1U);
        std::strcpy(info.value.enumerated.name, sourceNames[info.value.enumerated.item]);
    } else {
        info.value.integer.min = options.isHostile ? control.max : 0;
        info.value.integer.max = options.isHostile ? 0 : control.max;
        info.value.integer.step = 0;
    }
}

int FakedCard::_transfer(snd_ctl_elem_value& value, bool isWrite, unsigned& changed)
{
    const unsigned found = _find(value.id);
    if (!found)
        return -ENOENT;
    Control& control = controls[found - 1];
    const bool isChoice = control.type == SNDRV_CTL_ELEM_TYPE_ENUMERATED;
    name(found, value.id);
    if (isWrite && !control.isWritable)
        return -EPERM;
    for (unsigned i = 0; i < control.count; ++i) {
        if (!isWrite) {
            if (isChoice)
                value.value.enumerated.item[i] = static_cast<unsigned>(control.value[i]);
            else
                value.value.integer.value[i] = options.isHostile ? 1L << 60 : control.value[i];
            continue;
        }
        const long wanted = isChoice ? value.value.enumerated.item[i] : value.value.integer.value[i];
        if (wanted < 0 || wanted > control.max)
            return -EINVAL;
        if (control.value[i] != wanted)
            changed = found;
        control.value[i] = wanted;
    }
    return changed != 0;
}

int FakedCard::ioctl(unsigned long request, void* argument, unsigned& changed)
{
    auto& number_ = *static_cast<int*>(argument);
    switch (request) {
    case SNDRV_CTL_IOCTL_PVERSION:
        number_ = SNDRV_CTL_VERSION;
        return 0;
    case SNDRV_CTL_IOCTL_CARD_INFO:
        _describe(*static_cast<snd_ctl_card_info*>(argument));
        return 0;
    case SNDRV_CTL_IOCTL_PCM_NEXT_DEVICE:
        number_ = number_ + 1 < static_cast<int>(options.pcmCount) ? number_ + 1 : options.isHostile ? 0 : -1;
        return 0;
    case SNDRV_CTL_IOCTL_PCM_PREFER_SUBDEVICE:
        return 0;
    case SNDRV_CTL_IOCTL_ELEM_LIST: {
        auto& list = *static_cast<snd_ctl_elem_list*>(argument);
        list.count = static_cast<unsigned>(controls.size());
        list.used = 0;
        for (unsigned i = list.offset; i < controls.size() && list.used < list.space; ++i)
            name(i + 1, list.pids[list.used++]);
        return 0;
    }
    case SNDRV_CTL_IOCTL_ELEM_INFO: {
        auto& info = *static_cast<snd_ctl_elem_info*>(argument);
        const unsigned found = _find(info.id);
        if (found)
            _describe(info, found);
        return found ? 0 : -ENOENT;
    }
    case SNDRV_CTL_IOCTL_ELEM_READ:
    case SNDRV_CTL_IOCTL_ELEM_WRITE:
        return _transfer(*static_cast<snd_ctl_elem_value*>(argument), request == SNDRV_CTL_IOCTL_ELEM_WRITE,
                         changed);
    case SNDRV_CTL_IOCTL_TLV_READ: {
        auto& tlv = *static_cast<snd_ctl_tlv*>(argument);
        if (tlv.numid == 0 || tlv.numid > controls.size() || !controls[tlv.numid - 1].minDecibels ||
            tlv.length < 16)
            return -ENXIO;
        const auto min = static_cast<unsigned>(controls[tlv.numid - 1].minDecibels);
        const unsigned scale[4] = {SNDRV_CTL_TLVT_DB_SCALE, options.isHostile ? 0xFFFFFFF0U : 8U, min, 100};
        std::memcpy(tlv.tlv, scale, sizeof scale);
        return 0;
    }
    default:
        return -ENOTTY;
    }
}
