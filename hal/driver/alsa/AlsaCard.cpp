#include "AlsaCard.h"

#include "AlsaQuiet.h"

#include <algorithm>
#include <cstdio>
#include <fstream>

namespace {

constexpr size_t maxPcms = 64; // of a card; upper limit of what is listed

} // namespace

CXRef<AlsaCard> AlsaCard::open(int number, const std::filesystem::path& root)
{
    const AlsaQuiet quiet;
    auto card = CXRef<AlsaCard>::adopt(new AlsaCard(number, root));
    if (card->_open() < 0)
        return nullptr;
    card->_findPcms();
    return card;
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
    const std::string name = "hw:" + std::to_string(number);
    int error = snd_mixer_open(&_mixer.elements, 0);
    error = error < 0 ? error : snd_mixer_attach(_mixer.elements, name.c_str());
    error = error < 0 ? error : snd_mixer_selem_register(_mixer.elements, nullptr, nullptr);
    error = error < 0 ? error : snd_mixer_load(_mixer.elements);
    error = error < 0 ? error : snd_mixer_get_hctl(_mixer.elements, name.c_str(), &_mixer.all);
    return error < 0 || snd_mixer_poll_descriptors(_mixer.elements, &_descriptor, 1) == 1 ? error : -EIO;
}

std::string AlsaCard::pcmName(unsigned pcm) const
{
    return "hw:" + std::to_string(number) + "," + std::to_string(pcm);
}

std::optional<AlsaIdentity> AlsaCard::identity()
{
    const AlsaQuiet quiet;
    const std::scoped_lock lock(_mutex);
    snd_ctl_card_info_t* info = nullptr;
    snd_ctl_card_info_alloca(&info);
    if (snd_ctl_card_info(snd_hctl_ctl(_mixer.all), info) < 0)
        return std::nullopt;
    return alsaIdentity(number,
                        {snd_ctl_card_info_get_id(info), snd_ctl_card_info_get_driver(info),
                         snd_ctl_card_info_get_name(info), snd_ctl_card_info_get_longname(info),
                         snd_ctl_card_info_get_components(info)},
                        _root / "sys");
}

bool AlsaCard::_pcmInfo(unsigned pcm, size_t direction, snd_pcm_info_t* info)
{
    snd_pcm_info_set_device(info, pcm);
    snd_pcm_info_set_subdevice(info, 0);
    snd_pcm_info_set_stream(info, direction == 0 ? SND_PCM_STREAM_CAPTURE : SND_PCM_STREAM_PLAYBACK);
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
        for (size_t direction = 0; direction < 2; ++direction) {
            if (!_pcmInfo(found.number, direction, info))
                continue;
            found.id = snd_pcm_info_get_id(info);
            found.name = snd_pcm_info_get_name(info);
            found.has[direction] = true;
            found.isFirst[direction] = !std::exchange(hasFirst[direction], true);
        }
        if (found.has[0] || found.has[1])
            _pcms.push_back(found);
    }
    if (_pcms.size() == 1)
        _pcms.front().isOnly = true;
}

bool AlsaCard::isUsedElsewhere(unsigned pcm, HALDirection direction, bool isOurs)
{
    const AlsaQuiet quiet;
    const std::scoped_lock lock(_mutex);
    snd_pcm_info_t* info = nullptr;
    snd_pcm_info_alloca(&info);
    if (!_pcmInfo(pcm, static_cast<size_t>(direction), info))
        return false;
    return snd_pcm_info_get_subdevices_avail(info) + (isOurs ? 1U : 0U) <
           snd_pcm_info_get_subdevices_count(info);
}

std::optional<AlsaAbilities> AlsaCard::abilitiesInUse(unsigned pcm, HALDirection direction) const
{
    std::ifstream file(_root / "proc/asound" / ("card" + std::to_string(number)) /
                       ("pcm" + std::to_string(pcm) + (direction == HALDirection::Input ? "c" : "p")) /
                       "sub0/hw_params");
    unsigned channels = 0, rate = 0, ring = 0;
    for (std::string line; std::getline(file, line);) { // "rate: 48000 (48000/1)"
        std::sscanf(line.c_str(), "channels: %5u", &channels);
        std::sscanf(line.c_str(), "rate: %7u", &rate);
        std::sscanf(line.c_str(), "buffer_size: %8u", &ring);
    }
    return AlsaPcm::usable(AlsaAbilities{channels, {rate}, 0, ring / 2});
}

int AlsaCard::readEvents()
{
    const AlsaQuiet quiet;
    const std::scoped_lock lock(_mutex);
    return snd_hctl_handle_events(_mixer.all); // the elements follow
}
