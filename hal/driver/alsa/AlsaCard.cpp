#include "AlsaCard.h"

#include "AlsaQuiet.h"
#include "Utf8.h"

#include <atomic>
#include <cstdio>
#include <fstream>
#include <unistd.h>

namespace {

constexpr size_t maxPcms = 64; // of a card; upper limit of the list

/// As the kernel's files have it.
char letterOf(HALDirection direction)
{
    return direction == HALDirection::Input ? 'c' : 'p';
}

std::atomic<snd_mixer_event_t> simpleEvent{}; // alsa-lib's

/// alsa-lib ends the process if the control "Capture Source" cannot be read, as when the card is unplugged at
/// that moment. No volume or switch depends on that control, so the mixer never sees it.
int eventWithoutCaptureSource(snd_mixer_class_t* elements, unsigned mask, snd_hctl_elem_t* control,
                              snd_mixer_elem_t* element)
{
    return std::string_view("Capture Source") == snd_hctl_elem_get_name(control)
               ? 0
               : simpleEvent.load()(elements, mask, control, element);
}

/// Makes a card's controls the volumes and switches of `mixer`. Returns 0 or an error.
int addVolumesAndSwitches(snd_mixer_t* mixer)
{
    snd_mixer_class_t* elements = nullptr;
    if (const int error = snd_mixer_selem_register(mixer, nullptr, &elements); error < 0)
        return error;
    simpleEvent = snd_mixer_class_get_event(elements);
    return snd_mixer_class_set_event(elements, eventWithoutCaptureSource);
}

} // namespace

bool alsaIsShortage(int error, const std::string& file)
{
    return error == -EMFILE || error == -ENFILE || error == -ENOMEM ||
           (alsaIsAbsence(error) && access(("/dev/snd/" + file).c_str(), R_OK | W_OK) == 0);
}

CXRef<AlsaCard> AlsaCard::open(int number, const std::filesystem::path& root, int& error)
{
    auto card = CXRef<AlsaCard>::adopt(new AlsaCard(number, root));
    error = card->_open();
    return error ? nullptr : card;
}

AlsaCard::AlsaCard(int cardNumber, std::filesystem::path root)
    : number(cardNumber), _root(std::move(root)), _reservation(cardNumber)
{}

AlsaCard::~AlsaCard()
{
    const AlsaQuiet quiet;
    if (_mixer.elements)
        snd_mixer_close(_mixer.elements);
}

int AlsaCard::_open()
{
    const std::string card = "hw:" + std::to_string(number);
    int error = 0;
    if ((error = snd_mixer_open(&_mixer.elements, 0)) < 0 ||
        (error = snd_mixer_attach(_mixer.elements, card.c_str())) < 0 ||
        (error = addVolumesAndSwitches(_mixer.elements)) < 0 ||
        (error = snd_mixer_get_hctl(_mixer.elements, card.c_str(), &_mixer.all)) < 0)
        return error;
    if (snd_mixer_poll_descriptors(_mixer.elements, &_descriptor, 1) != 1)
        return -EINVAL;
    // A control that cannot be read ends the loading. The card is used with the controls before it.
    if (snd_mixer_load(_mixer.elements) < 0)
        snd_ctl_subscribe_events(snd_hctl_ctl(_mixer.all), 1); // otherwise done at the end of the loading
    const auto info = _info();
    if (!info)
        return -ENODEV;
    _identity = alsaIdentity(number, *info, _root / "sys");
    _findPcms();
    return 0;
}

std::string AlsaCard::pcmName(unsigned pcm) const
{
    return "hw:" + std::to_string(number) + "," + std::to_string(pcm);
}

std::string AlsaCard::pcmFile(unsigned pcm, HALDirection direction) const
{
    return "pcmC" + std::to_string(number) + "D" + std::to_string(pcm) + letterOf(direction);
}

/// Stores alsa-lib's result in `error`.
std::optional<AlsaCardInfo> AlsaCard::_info(int* error)
{
    const std::scoped_lock lock(_mutex);
    snd_ctl_card_info_t* info = nullptr;
    snd_ctl_card_info_alloca(&info);
    const int result = snd_ctl_card_info(snd_hctl_ctl(_mixer.all), info);
    if (error)
        *error = result;
    if (result < 0)
        return std::nullopt;
    return AlsaCardInfo{snd_ctl_card_info_get_id(info), snd_ctl_card_info_get_driver(info),
                        snd_ctl_card_info_get_name(info), snd_ctl_card_info_get_longname(info),
                        snd_ctl_card_info_get_components(info)};
}

std::optional<std::string> AlsaCard::name()
{
    const auto info = _info();
    return info ? std::optional(dxr::utf8Replaced(info->name.empty() ? info->id : info->name)) : std::nullopt;
}

bool AlsaCard::_pcmInfo(unsigned pcm, HALDirection direction, snd_pcm_info_t* info)
{
    const std::scoped_lock lock(_mutex);
    snd_pcm_info_set_device(info, pcm);
    snd_pcm_info_set_subdevice(info, 0);
    snd_pcm_info_set_stream(info, alsaStream(direction));
    return snd_ctl_pcm_info(snd_hctl_ctl(_mixer.all), info) >= 0;
}

void AlsaCard::_findPcms()
{
    std::array<bool, 2> hasFirst{};
    snd_pcm_info_t* info = nullptr;
    snd_pcm_info_alloca(&info);
    for (int pcm = -1, last = -1; _pcms.size() < maxPcms; last = pcm) {
        if (snd_ctl_pcm_next_device(snd_hctl_ctl(_mixer.all), &pcm) < 0 || pcm <= last)
            break;
        AlsaPcmInfo found{.number = static_cast<unsigned>(pcm)};
        for (const HALDirection direction : halDirections) {
            const auto place = static_cast<size_t>(direction);
            if (!_pcmInfo(found.number, direction, info))
                continue;
            found.id = snd_pcm_info_get_id(info);
            found.name = snd_pcm_info_get_name(info);
            found.has[place] = true;
            found.isFirst[place] = !std::exchange(hasFirst[place], true);
        }
        if (found.has[0] || found.has[1])
            _pcms.push_back(found);
    }
    if (_pcms.size() == 1)
        _pcms.front().isOnly = true;
}

bool AlsaCard::isUsedElsewhere(unsigned pcm, HALDirection direction, bool isOurs)
{
    snd_pcm_info_t* info = nullptr;
    snd_pcm_info_alloca(&info);
    return _pcmInfo(pcm, direction, info) && snd_pcm_info_get_subdevices_avail(info) + (isOurs ? 1U : 0U) <
                                                 snd_pcm_info_get_subdevices_count(info);
}

std::optional<AlsaAbilities> AlsaCard::abilitiesInUse(unsigned pcm, HALDirection direction) const
{
    std::ifstream file(_root / "proc/asound" / ("card" + std::to_string(number)) /
                       ("pcm" + std::to_string(pcm) + letterOf(direction)) / "sub0/hw_params");
    unsigned channels = 0, rate = 0, ring = 0;
    for (std::string line; std::getline(file, line);) { // "rate: 48000 (48000/1)"
        std::sscanf(line.c_str(), "channels: %5u", &channels);
        std::sscanf(line.c_str(), "rate: %7u", &rate);
        std::sscanf(line.c_str(), "buffer_size: %8u", &ring);
    }
    return AlsaPcm::usable(AlsaAbilities{channels, {rate}, 0, ring});
}

bool AlsaCard::readEvents()
{
    {
        const std::scoped_lock lock(_mutex);
        if (snd_hctl_handle_events(_mixer.all) >= 0) // updates the mixer's elements, too
            return true;
    }
    // It also fails for a single event: of a control that was removed before alsa-lib knew it, or that cannot
    // be read. The events after it are still to be read and cause the next call.
    int error = 0;
    return _info(&error) || error == -ENOMEM;
}
