#include "AlsaControls.h"

#include "Utf8.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <numeric>
#include <string_view>

namespace {

constexpr unsigned maxItems = 64;   // of an input selection; upper limit of the list
constexpr unsigned maxValues = 128; // of a control
constexpr uint32_t internalSource = 1;
constexpr uint32_t firstItemSource = 1;

using Element = snd_mixer_elem_t*;
using Channel = snd_mixer_selem_channel_id_t;

bool isOutputJack(std::string_view name)
{
    return std::ranges::any_of(std::array{"Headphone", "Line Out", "HDMI", "Speaker"},
                               [&](const char* each) { return name.find(each) != std::string::npos; });
}

} // namespace

/// The functions that alsa-lib has for each direction, and the names of elements by preference; elements with
/// other names come last.
struct AlsaControls::Functions {
    std::array<std::string_view, 6> preferred;
    int (*hasVolume)(Element);
    int (*hasSwitch)(Element);
    int (*isJoined)(Element);
    int (*hasChannel)(Element, Channel);
    int (*range)(Element, long*, long*);
    int (*get)(Element, Channel, long*);
    int (*set)(Element, Channel, long);
    int (*decibels)(Element, long, long*); // hundredths, of a step
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
     snd_mixer_selem_get_capture_volume,
     snd_mixer_selem_set_capture_volume,
     snd_mixer_selem_ask_capture_vol_dB,
     snd_mixer_selem_get_capture_switch,
     snd_mixer_selem_set_capture_switch_all},
    {{"Master", "PCM", "Speaker", "Headphone", "Line Out", "Digital"},
     snd_mixer_selem_has_playback_volume,
     snd_mixer_selem_has_playback_switch,
     snd_mixer_selem_has_playback_volume_joined,
     snd_mixer_selem_has_playback_channel,
     snd_mixer_selem_get_playback_volume_range,
     snd_mixer_selem_get_playback_volume,
     snd_mixer_selem_set_playback_volume,
     snd_mixer_selem_ask_playback_vol_dB,
     snd_mixer_selem_get_playback_switch,
     snd_mixer_selem_set_playback_switch_all},
};

/// Converts between the steps of a volume control and amplitudes: by decibels if the control has them,
/// otherwise as positions of a slider.
class AlsaControls::Scale {
public:
    Scale(const Functions& functionsOfSide, Element element) : _functions(functionsOfSide), _element(element)
    {
        long min = 0;
        if (element && _functions.range(element, &_min, &_max) >= 0)
            _hasDecibels = _functions.decibels(element, _min, &min) >= 0 &&
                           _functions.decibels(element, _max, &_maxDecibels) >= 0 && min < _maxDecibels;
    }
    bool isUsable() const { return _min < _max; }

    float amplitudeOf(long step) const
    {
        long decibels = 0;
        if (step <= _min || step >= _max)
            return step <= _min ? 0.0F : 1.0F;
        if (!_hasDecibels || _functions.decibels(_element, step, &decibels) < 0) {
            const double min = static_cast<double>(_min);
            return static_cast<float>(
                std::pow((static_cast<double>(step) - min) / (static_cast<double>(_max) - min), 3.0));
        }
        return std::min(
            1.0F, static_cast<float>(std::pow(10.0, static_cast<double>(decibels - _maxDecibels) / 2000.0)));
    }

    /// The nearest step.
    long stepOf(float amplitude) const
    {
        long below = _min, above = _max;
        while (below + 1 < above) {
            const long middle = std::midpoint(below, above);
            (amplitudeOf(middle) <= amplitude ? below : above) = middle;
        }
        return amplitude - amplitudeOf(below) < amplitudeOf(above) - amplitude ? below : above;
    }

private:
    const Functions& _functions;
    Element const _element;
    long _min = 0, _max = 0, _maxDecibels = 0;
    bool _hasDecibels = false;
};

AlsaControls::AlsaControls(AlsaPcmInfo pcm, HALDirection direction)
    : _pcm(std::move(pcm)), _direction(direction), _isCards(_pcm.isFirst[static_cast<size_t>(direction)]),
      _functions(functions[static_cast<size_t>(direction)])
{}

// ---- Volume and mute

/// Returns the element for which `has` is true and that suits the direction best. A card's elements belong to
/// its first PCM.
Element AlsaControls::_find(const AlsaMixer& mixer, int (*has)(Element)) const
{
    const auto& preferred = _functions.preferred;
    Element best = nullptr;
    auto bestPlace = preferred.end();
    Element each = _isCards ? snd_mixer_first_elem(mixer.elements) : nullptr;
    for (; each; each = snd_mixer_elem_next(each)) {
        const std::string_view name = snd_mixer_selem_get_name(each);
        const auto place = std::ranges::find(preferred, name);
        const bool isCommon =
            snd_mixer_selem_has_common_volume(each) || snd_mixer_selem_has_common_switch(each);
        // An element of both directions belongs to the direction for which its name is preferred. A
        // microphone element among the outputs controls its playback, and an element of an exclusive group of
        // switches selects an input: neither is suitable.
        const bool isOther =
            (isCommon && place == preferred.end()) ||
            (_direction == HALDirection::Output && name.starts_with("Mic")) ||
            (has == functions[0].hasSwitch && snd_mixer_selem_has_capture_switch_exclusive(each));
        if (snd_mixer_selem_get_index(each) != 0 || !has(each) || isOther)
            continue;
        if (!best || place < bestPlace) {
            best = each;
            bestPlace = place;
        }
    }
    return best;
}

/// Reads the steps of each channel, or the common one. Returns null if there is no volume.
Element AlsaControls::_readVolume(const AlsaMixer& mixer)
{
    Element const element = _find(mixer, _functions.hasVolume);
    const Scale scale(_functions, element);
    if (!scale.isUsable())
        return nullptr;
    const int count = _functions.isJoined(element) ? 1 : SND_MIXER_SCHN_LAST + 1;
    std::vector<float> amplitudes;
    std::vector<long> steps;
    for (int i = 0; i < count && _functions.hasChannel(element, static_cast<Channel>(i)); ++i) {
        const auto place = static_cast<size_t>(i);
        long step = 0;
        _functions.get(element, static_cast<Channel>(i), &step);
        const bool isAsWritten = place < _steps.size() && _steps[place] == step;
        steps.push_back(step);
        amplitudes.push_back(isAsWritten ? _volume.amplitudes()[place] : scale.amplitudeOf(step));
    }
    _steps = std::move(steps);
    _volume.setAmplitudes(amplitudes);
    return _steps.empty() ? nullptr : element;
}

void AlsaControls::read(const AlsaMixer& mixer, uint32_t channelCount, HALDirectionState& state)
{
    state.mainVolume.reset();
    state.channelVolumes.clear();
    state.muted.reset();
    state.dataSources.clear();
    state.dataSourceID.reset();
    if (_readVolume(mixer)) {
        state.mainVolume = _volume.mainScalar();
        if (_steps.size() == channelCount && channelCount > 1)
            state.channelVolumes = _volume.channelScalars();
    }
    if (Element const mute = _find(mixer, _functions.hasSwitch)) {
        state.muted = true;
        for (int channel = 0; _functions.hasChannel(mute, static_cast<Channel>(channel)); ++channel)
            if (int isOn = 0; _functions.getSwitch(mute, static_cast<Channel>(channel), &isOn) >= 0 && isOn)
                state.muted = false;
    }
    if (snd_hctl_elem_t* const choice = _choice(mixer))
        _readChoice(choice, state);
    else
        _readJacks(mixer, state);
}

int AlsaControls::setVolume(const AlsaMixer& mixer, uint32_t element, float scalar)
{
    Element const control = _readVolume(mixer);
    if (!control || element > _steps.size())
        return -ENOENT;
    const std::vector<float> wanted = _volume.amplitudesAfter(element, scalar);
    const Scale scale(_functions, control);
    int error = 0;
    for (size_t channel = 0; channel < wanted.size() && error >= 0; ++channel) {
        if (element != 0 && element != channel + 1)
            continue;
        _steps[channel] = scale.stepOf(wanted[channel]);
        error = _functions.set(control, static_cast<Channel>(channel), _steps[channel]);
    }
    _volume.setAmplitudes(wanted);
    return std::min(error, 0);
}

int AlsaControls::setMuted(const AlsaMixer& mixer, bool muted) const
{
    Element const mute = _find(mixer, _functions.hasSwitch);
    return mute ? std::min(_functions.setSwitches(mute, muted ? 0 : 1), 0) : -ENOENT;
}

// ---- Data sources

/// The control that selects the card's input; null if there is none.
snd_hctl_elem_t* AlsaControls::_choice(const AlsaMixer& mixer) const
{
    snd_ctl_elem_info_t* info = nullptr;
    snd_ctl_elem_info_alloca(&info);
    const bool canChoose = _direction == HALDirection::Input && _isCards;
    auto* each = canChoose ? snd_hctl_first_elem(mixer.all) : nullptr;
    for (; each; each = snd_hctl_elem_next(each)) {
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

/// Jacks have names like "Headphone Jack", or "HDMI/DP,pcm=3 Jack" for the jack of one PCM.
void AlsaControls::_readJacks(const AlsaMixer& mixer, HALDirectionState& state) const
{
    const bool isOutput = _direction == HALDirection::Output;
    snd_ctl_elem_value_t* value = nullptr;
    snd_ctl_elem_value_alloca(&value);
    for (auto* each = snd_hctl_first_elem(mixer.all); each; each = snd_hctl_elem_next(each)) {
        const std::string name = snd_hctl_elem_get_name(each);
        const size_t label = std::min(name.find(",pcm="), name.rfind(" Jack"));
        unsigned pcm = 0;
        const bool isOurs = std::sscanf(name.c_str() + std::min(label, name.size()), ",pcm=%4u", &pcm) == 1
                                ? pcm == _pcm.number
                                : _isCards;
        if (snd_hctl_elem_get_interface(each) != SND_CTL_ELEM_IFACE_CARD || !name.ends_with(" Jack") ||
            name.ends_with("Phantom Jack") || isOutputJack(name) != isOutput || !isOurs ||
            snd_hctl_elem_read(each, value) < 0)
            continue;
        if (state.dataSources.empty()) {
            state.dataSources.push_back(
                {internalSource, isOutput ? "Internal Speaker" : "Internal Microphone"});
            state.dataSourceID = internalSource;
        }
        // Source IDs are stable while the card exists. They differ from internalSource, because numids begin
        // at 1.
        const uint32_t sourceID = internalSource + snd_hctl_elem_get_numid(each);
        state.dataSources.push_back({sourceID, dxr::utf8Replaced(name.substr(0, label))});
        if (state.dataSourceID == internalSource && snd_ctl_elem_value_get_boolean(value, 0))
            state.dataSourceID = sourceID;
    }
}

/// Returns -ENOENT if the card has no input selection; jacks select their source themselves.
int AlsaControls::setDataSource(const AlsaMixer& mixer, uint32_t sourceID) const
{
    snd_hctl_elem_t* const choice = _choice(mixer);
    if (!choice)
        return -ENOENT;
    snd_ctl_elem_value_t* value = nullptr;
    snd_ctl_elem_value_alloca(&value);
    for (unsigned i = 0; i < maxValues; ++i)
        snd_ctl_elem_value_set_enumerated(value, i, sourceID - firstItemSource);
    return std::min(snd_hctl_elem_write(choice, value), 0);
}
