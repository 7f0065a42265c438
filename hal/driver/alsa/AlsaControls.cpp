#include "AlsaControls.h"

#include "AlsaQuiet.h"
#include "Utf8.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string_view>

namespace {

constexpr unsigned maxItems = 64; // of a choice; upper limit of what is listed
constexpr uint32_t internalSource = 1;
constexpr uint32_t firstItemSource = 1;

using Element = snd_mixer_elem_t*;
using Channel = snd_mixer_selem_channel_id_t;

size_t placeOf(HALDirection direction)
{
    return static_cast<size_t>(direction);
}

bool isOutputJack(std::string_view name)
{
    return std::ranges::any_of(std::array{"Headphone", "Line Out", "HDMI", "Speaker"},
                               [&](const char* each) { return name.find(each) != std::string::npos; });
}

/// "HDMI/DP,pcm=3 Jack" is of PCM 3; -1 without a number.
int pcmOfJack(const std::string& name)
{
    const size_t at = name.find(",pcm=");
    int number = -1;
    if (at != std::string::npos)
        std::sscanf(name.c_str() + at, ",pcm=%4d", &number);
    return number;
}

/// "Headphone" of "Headphone Jack", "HDMI/DP" of "HDMI/DP,pcm=3 Jack".
std::string labelOfJack(const std::string& name)
{
    return dxr::utf8Replaced(name.substr(0, std::min(name.find(",pcm="), name.rfind(" Jack"))));
}

} // namespace

/// What alsa-lib has twice, and the elements' names by preference; what is not listed comes last.
struct AlsaControls::Functions {
    std::array<std::string_view, 6> preferred;
    int (*hasVolume)(Element);
    int (*hasSwitch)(Element);
    int (*isJoined)(Element);
    int (*hasChannel)(Element, Channel);
    int (*range)(Element, long*, long*);
    int (*decibelRange)(Element, long*, long*); // hundredths
    int (*get)(Element, Channel, long*);
    int (*set)(Element, Channel, long);
    int (*toDecibels)(Element, long, long*);
    int (*fromDecibels)(Element, long, int, long*);
    int (*getSwitch)(Element, Channel, int*);
    int (*setSwitches)(Element, int);
};

const AlsaControls::Functions AlsaControls::functions[2] = {
    {{"Capture", "Mic", "Line", "PCM", "Digital", "Input"},
     snd_mixer_selem_has_capture_volume,
     snd_mixer_selem_has_capture_switch,
     snd_mixer_selem_has_capture_volume_joined,
     snd_mixer_selem_has_capture_channel,
     snd_mixer_selem_get_capture_volume_range,
     snd_mixer_selem_get_capture_dB_range,
     snd_mixer_selem_get_capture_volume,
     snd_mixer_selem_set_capture_volume,
     snd_mixer_selem_ask_capture_vol_dB,
     snd_mixer_selem_ask_capture_dB_vol,
     snd_mixer_selem_get_capture_switch,
     snd_mixer_selem_set_capture_switch_all},
    {{"Master", "PCM", "Speaker", "Headphone", "Line Out", "Digital"},
     snd_mixer_selem_has_playback_volume,
     snd_mixer_selem_has_playback_switch,
     snd_mixer_selem_has_playback_volume_joined,
     snd_mixer_selem_has_playback_channel,
     snd_mixer_selem_get_playback_volume_range,
     snd_mixer_selem_get_playback_dB_range,
     snd_mixer_selem_get_playback_volume,
     snd_mixer_selem_set_playback_volume,
     snd_mixer_selem_ask_playback_vol_dB,
     snd_mixer_selem_ask_playback_dB_vol,
     snd_mixer_selem_get_playback_switch,
     snd_mixer_selem_set_playback_switch_all},
};

namespace {

/// Between the steps of a volume control and amplitudes: by decibels where they are known, else as a slider's position.
class Scale {
public:
    template <class Functions>
    Scale(const Functions& side, Element element)
        : _element(element), _toDecibels(side.toDecibels), _fromDecibels(side.fromDecibels)
    {
        if (element && side.range(element, &_min, &_max) >= 0 &&
            side.decibelRange(element, &_minDecibels, &_maxDecibels) < 0)
            _maxDecibels = _minDecibels;
    }
    bool isUsable() const { return _min < _max; }

    float amplitudeOf(long step) const
    {
        long decibels = 0;
        if (step <= _min || step >= _max)
            return step <= _min ? 0.0F : 1.0F;
        if (_minDecibels >= _maxDecibels || _toDecibels(_element, step, &decibels) < 0)
            return static_cast<float>(std::pow(static_cast<double>(step - _min) / _range(), 3.0));
        const long below = std::clamp(decibels, _minDecibels, _maxDecibels) - _maxDecibels;
        return static_cast<float>(std::pow(10.0, static_cast<double>(below) / 2000.0));
    }

    /// The nearest one.
    long stepOf(float amplitude) const
    {
        if (!(amplitude > 0.0F))
            return _min;
        const long offset = std::lround(2000.0 * std::log10(static_cast<double>(amplitude)));
        const long wanted = std::max(_minDecibels, _maxDecibels + offset);
        long below = 0, above = 0, belowDecibels = 0, aboveDecibels = 0;
        if (_minDecibels >= _maxDecibels || _fromDecibels(_element, wanted, -1, &below) < 0 ||
            _fromDecibels(_element, wanted, 1, &above) < 0 ||
            _toDecibels(_element, below, &belowDecibels) < 0 ||
            _toDecibels(_element, above, &aboveDecibels) < 0)
            return _min + std::lround(std::cbrt(static_cast<double>(amplitude)) * _range());
        const bool isAboveNearer = std::abs(aboveDecibels - wanted) < std::abs(wanted - belowDecibels);
        return std::clamp(isAboveNearer ? above : below, _min, _max);
    }

private:
    double _range() const { return static_cast<double>(_max) - static_cast<double>(_min); }

    Element const _element;
    int (*const _toDecibels)(Element, long, long*);
    int (*const _fromDecibels)(Element, long, int, long*);
    long _min = 0, _max = 0;
    long _minDecibels = 0, _maxDecibels = 0; // hundredths; equal where they are not known
};

} // namespace

// ---- Volume and mute

/// The element with what `has` looks for that suits the direction best. A card's elements are its first PCM's.
Element AlsaControls::_find(const AlsaMixer& mixer, HALDirection direction, int (*has)(Element)) const
{
    const auto& preferred = functions[placeOf(direction)].preferred;
    const bool isInputMute = has == functions[placeOf(HALDirection::Input)].hasSwitch;
    Element best = nullptr;
    auto bestPlace = preferred.end();
    Element each = _pcm.isFirst[placeOf(direction)] ? snd_mixer_first_elem(mixer.elements) : nullptr;
    for (; each; each = snd_mixer_elem_next(each)) {
        const std::string_view name = snd_mixer_selem_get_name(each);
        const auto place = std::ranges::find(preferred, name);
        const bool isCommon =
            snd_mixer_selem_has_common_volume(each) || snd_mixer_selem_has_common_switch(each);
        // An element of both directions belongs to the one that its name is usual for; a microphone's, among the
        // outputs, is what plays it through; one of a group of switches chooses an input.
        const bool isOther = (isCommon && place == preferred.end()) ||
                             (direction == HALDirection::Output && name.starts_with("Mic")) ||
                             (isInputMute && snd_mixer_selem_has_capture_switch_exclusive(each));
        if (snd_mixer_selem_get_index(each) != 0 || !has(each) || isOther)
            continue;
        if (!best || place < bestPlace) {
            best = each;
            bestPlace = place;
        }
    }
    return best;
}

/// Reads the steps of each channel, or the one for all. Null when there is no volume.
Element AlsaControls::_readVolume(const AlsaMixer& mixer, HALDirection direction)
{
    const Functions& side = functions[placeOf(direction)];
    Volume& volume = _volumes[placeOf(direction)];
    Element const element = _find(mixer, direction, side.hasVolume);
    const Scale scale(side, element);
    if (!scale.isUsable())
        return nullptr;
    const unsigned count = side.isJoined(element) ? 1 : SND_MIXER_SCHN_LAST + 1;
    std::vector<float> amplitudes = volume.amplitudes.amplitudes();
    unsigned channel = 0;
    for (; channel < count && side.hasChannel(element, static_cast<Channel>(channel)); ++channel) {
        long step = 0;
        side.get(element, static_cast<Channel>(channel), &step);
        amplitudes.resize(std::max<size_t>(amplitudes.size(), channel + 1));
        if (channel >= volume.steps.size())
            volume.steps.push_back(step);
        else if (volume.steps[channel] == step)
            continue;
        volume.steps[channel] = step;
        amplitudes[channel] = scale.amplitudeOf(step);
    }
    amplitudes.resize(channel);
    volume.steps.resize(channel);
    volume.amplitudes.setAmplitudes(amplitudes);
    return channel > 0 ? element : nullptr;
}

void AlsaControls::read(const AlsaMixer& mixer, HALDirection direction, uint32_t channelCount,
                        HALDirectionState& state)
{
    const AlsaQuiet quiet;
    state.mainVolume.reset();
    state.channelVolumes.clear();
    state.muted.reset();
    if (_readVolume(mixer, direction)) {
        const Volume& volume = _volumes[placeOf(direction)];
        state.mainVolume = volume.amplitudes.mainScalar();
        if (volume.steps.size() == channelCount && channelCount > 1)
            state.channelVolumes = volume.amplitudes.channelScalars();
    }
    const Functions& side = functions[placeOf(direction)];
    if (Element const mute = _find(mixer, direction, side.hasSwitch)) {
        state.muted = true;
        for (unsigned channel = 0; side.hasChannel(mute, static_cast<Channel>(channel)); ++channel)
            if (int isOn = 0; side.getSwitch(mute, static_cast<Channel>(channel), &isOn) >= 0 && isOn)
                state.muted = false;
    }
    state.dataSources.clear();
    state.dataSourceID.reset();
    if (snd_hctl_elem_t* const choice = _choice(mixer, direction))
        _readChoice(choice, state);
    else
        _readJacks(mixer, direction, state);
}

int AlsaControls::setVolume(const AlsaMixer& mixer, HALDirection direction, uint32_t element, float scalar)
{
    const AlsaQuiet quiet;
    const Functions& side = functions[placeOf(direction)];
    Volume& volume = _volumes[placeOf(direction)];
    Element const control = _readVolume(mixer, direction);
    if (!control || element > volume.steps.size())
        return -ENOENT;
    const std::vector<float> wanted = volume.amplitudes.amplitudesAfter(element, scalar);
    const Scale scale(side, control);
    int error = 0;
    for (unsigned channel = 0; channel < wanted.size() && error >= 0; ++channel) {
        if (element != 0 && element != channel + 1)
            continue;
        volume.steps[channel] = scale.stepOf(wanted[channel]);
        error = side.set(control, static_cast<Channel>(channel), volume.steps[channel]);
    }
    volume.amplitudes.setAmplitudes(wanted);
    return std::min(error, 0);
}

int AlsaControls::setMuted(const AlsaMixer& mixer, HALDirection direction, bool muted) const
{
    const AlsaQuiet quiet;
    const Functions& side = functions[placeOf(direction)];
    Element const mute = _find(mixer, direction, side.hasSwitch);
    return mute ? std::min(side.setSwitches(mute, muted ? 0 : 1), 0) : -ENOENT;
}

// ---- Data sources

/// The control that chooses what the card records; null when there is none.
snd_hctl_elem_t* AlsaControls::_choice(const AlsaMixer& mixer, HALDirection direction) const
{
    if (direction != HALDirection::Input || !_pcm.isFirst[0])
        return nullptr;
    snd_ctl_elem_info_t* info = nullptr;
    snd_ctl_elem_info_alloca(&info);
    for (auto* each = snd_hctl_first_elem(mixer.all); each; each = snd_hctl_elem_next(each)) {
        const std::string_view name = snd_hctl_elem_get_name(each);
        if ((name.ends_with("Capture Source") || name.ends_with("Input Source")) &&
            snd_hctl_elem_get_index(each) == 0 && snd_hctl_elem_info(each, info) >= 0 &&
            snd_ctl_elem_info_get_type(info) == SND_CTL_ELEM_TYPE_ENUMERATED)
            return each;
    }
    return nullptr;
}

void AlsaControls::_readChoice(snd_hctl_elem_t* choice, HALDirectionState& state) const
{
    snd_ctl_elem_info_t* info = nullptr;
    snd_ctl_elem_info_alloca(&info);
    snd_ctl_elem_value_t* value = nullptr;
    snd_ctl_elem_value_alloca(&value);
    for (unsigned item = 0, count = 1; item < count; ++item) {
        snd_ctl_elem_info_set_item(info, item);
        if (snd_hctl_elem_info(choice, info) < 0)
            break;
        count = std::min(snd_ctl_elem_info_get_items(info), maxItems);
        state.dataSources.push_back(
            {firstItemSource + item, dxr::utf8Replaced(snd_ctl_elem_info_get_item_name(info))});
    }
    if (snd_hctl_elem_read(choice, value) >= 0 &&
        snd_ctl_elem_value_get_enumerated(value, 0) < state.dataSources.size())
        state.dataSourceID = firstItemSource + snd_ctl_elem_value_get_enumerated(value, 0);
}

void AlsaControls::_readJacks(const AlsaMixer& mixer, HALDirection direction, HALDirectionState& state) const
{
    const bool isOutput = direction == HALDirection::Output;
    snd_ctl_elem_value_t* value = nullptr;
    snd_ctl_elem_value_alloca(&value);
    for (auto* each = snd_hctl_first_elem(mixer.all); each; each = snd_hctl_elem_next(each)) {
        const std::string name = snd_hctl_elem_get_name(each);
        const int number = pcmOfJack(name);
        const bool isOurs =
            number >= 0 ? static_cast<unsigned>(number) == _pcm.number : _pcm.isFirst[placeOf(direction)];
        if (snd_hctl_elem_get_interface(each) != SND_CTL_ELEM_IFACE_CARD || !name.ends_with(" Jack") ||
            name.ends_with("Phantom Jack") || isOutputJack(name) != isOutput || !isOurs ||
            snd_hctl_elem_read(each, value) < 0)
            continue;
        if (state.dataSources.empty()) {
            state.dataSources.push_back(
                {internalSource, isOutput ? "Internal Speaker" : "Internal Microphone"});
            state.dataSourceID = internalSource;
        }
        // Kept as long as the card is there: numbers of controls are from 1, so none is the internal one's.
        const uint32_t sourceID = internalSource + snd_hctl_elem_get_numid(each);
        state.dataSources.push_back({sourceID, labelOfJack(name)});
        if (state.dataSourceID == internalSource && snd_ctl_elem_value_get_boolean(value, 0))
            state.dataSourceID = sourceID;
    }
}

/// Jacks choose by themselves.
int AlsaControls::setDataSource(const AlsaMixer& mixer, HALDirection direction, uint32_t sourceID) const
{
    const AlsaQuiet quiet;
    snd_hctl_elem_t* const choice = _choice(mixer, direction);
    if (!choice)
        return -ENOENT;
    snd_ctl_elem_info_t* info = nullptr;
    snd_ctl_elem_info_alloca(&info);
    snd_ctl_elem_value_t* value = nullptr;
    snd_ctl_elem_value_alloca(&value);
    if (const int error = snd_hctl_elem_info(choice, info); error < 0)
        return error;
    for (unsigned i = 0; i < std::min(snd_ctl_elem_info_get_count(info), 128U); ++i)
        snd_ctl_elem_value_set_enumerated(value, i, sourceID - firstItemSource);
    return std::min(snd_hctl_elem_write(choice, value), 0);
}
