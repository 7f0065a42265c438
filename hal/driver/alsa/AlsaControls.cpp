#include "AlsaControls.h"

#include "AlsaQuiet.h"
#include "Utf8.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string_view>

namespace {

constexpr unsigned maxControls = 4096; // of a card; upper limit of what is looked at
constexpr unsigned maxItems = 64;      // of a choice
constexpr unsigned maxValues = 128;    // of a control: the kernel's
constexpr size_t maxNameBytes = 44;    // the kernel's, too
constexpr uint32_t internalSource = 1;
constexpr uint32_t firstItemSource = 1;

// Volumes by preference; what is not listed comes last.
constexpr std::array<std::string_view, 2 * 6> preferredNames{
    "Capture", "Mic", "Line",    "PCM",       "Digital",  "Input", // of an input
    "Master",  "PCM", "Speaker", "Headphone", "Line Out", "Digital"};

bool isOutputJack(const std::string& name)
{
    return name.find("Headphone") != std::string::npos || name.find("Line Out") != std::string::npos ||
           name.find("HDMI") != std::string::npos || name.find("Speaker") != std::string::npos;
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
    return platform::utf8Replaced(name.substr(0, std::min(name.find(",pcm="), name.rfind(" Jack"))));
}

} // namespace

struct AlsaControls::Name {
    unsigned number;
    snd_ctl_elem_iface_t interface;
    unsigned pcm;
    unsigned index;
    std::string name;
};

// ---- Finding

void AlsaControls::find(snd_ctl_t* card, const AlsaPcmInfo& pcm)
{
    const AlsaQuiet quiet;
    _card = card;
    const std::vector<Name> names = _names();
    for (const HALDirection direction : halDirections) {
        const std::string way = direction == HALDirection::Input ? "Capture" : "Playback";
        Side& side = _side(direction);
        side = {};
        if (!pcm.has[static_cast<size_t>(direction)])
            continue;
        side.volume = _pick(names, pcm, direction, way + " Volume", SND_CTL_ELEM_TYPE_INTEGER);
        side.mute = _pick(names, pcm, direction, way + " Switch", SND_CTL_ELEM_TYPE_BOOLEAN);
    }
    if (pcm.has[0]) {
        Side& input = _side(HALDirection::Input);
        input.choice = _pick(names, pcm, HALDirection::Input, "Capture Source", SND_CTL_ELEM_TYPE_ENUMERATED);
        if (!input.choice)
            input.choice =
                _pick(names, pcm, HALDirection::Input, "Input Source", SND_CTL_ELEM_TYPE_ENUMERATED);
    }
    _findJacks(names, pcm);
}

std::vector<AlsaControls::Name> AlsaControls::_names() const
{
    std::vector<Name> names;
    snd_ctl_elem_list_t* list = nullptr;
    snd_ctl_elem_list_alloca(&list);
    if (snd_ctl_elem_list(_card, list) < 0)
        return names;
    const unsigned count = std::min(snd_ctl_elem_list_get_count(list), maxControls);
    if (count == 0 || snd_ctl_elem_list_alloc_space(list, count) < 0)
        return names;
    if (snd_ctl_elem_list(_card, list) == 0) {
        const unsigned used = std::min(snd_ctl_elem_list_get_used(list), count);
        for (unsigned i = 0; i < used; ++i) {
            const char* const name = snd_ctl_elem_list_get_name(list, i);
            names.push_back({snd_ctl_elem_list_get_numid(list, i), snd_ctl_elem_list_get_interface(list, i),
                             snd_ctl_elem_list_get_device(list, i), snd_ctl_elem_list_get_index(list, i),
                             std::string(name, strnlen(name, maxNameBytes))});
        }
    }
    snd_ctl_elem_list_free_space(list);
    return names;
}

/// The control whose name ends in `ending` that suits the PCM best.
AlsaControls::Element AlsaControls::_pick(const std::vector<Name>& names, const AlsaPcmInfo& pcm,
                                          HALDirection direction, const std::string& ending,
                                          snd_ctl_elem_type_t type) const
{
    const bool isInput = direction == HALDirection::Input;
    const auto first = preferredNames.begin() + (isInput ? 0 : 6);
    const auto rank = [&](const Name& each) {
        const std::string_view what = std::string_view(each.name).substr(0, each.name.size() - ending.size());
        const auto preferred = std::find_if(first, first + 6, [&](std::string_view name) {
            return what.empty() ? name == "Capture" : what.substr(0, what.size() - 1) == name;
        });
        return preferred - first;
    };
    const Name* best = nullptr;
    for (const Name& each : names) {
        const bool isOurs = each.pcm == pcm.number && (each.pcm != 0 || pcm.isFirst[isInput ? 0 : 1]);
        const bool isCards = each.pcm == 0 && pcm.isFirst[isInput ? 0 : 1];
        // What a microphone plays through to the output is no volume of it.
        const bool isMonitor = !isInput && each.name.starts_with("Mic");
        if (each.interface != SND_CTL_ELEM_IFACE_MIXER || each.index != 0 || each.number == 0 || isMonitor ||
            !(isOurs || isCards) || !each.name.ends_with(ending))
            continue;
        if (!best || rank(each) < rank(*best))
            best = &each;
    }
    return best ? _describe(*best, type) : Element();
}

/// Nothing when the control is of another type, or describes itself as it cannot be.
AlsaControls::Element AlsaControls::_describe(const Name& name, snd_ctl_elem_type_t type) const
{
    snd_ctl_elem_info_t* info = nullptr;
    snd_ctl_elem_info_alloca(&info);
    snd_ctl_elem_id_t* id = nullptr;
    snd_ctl_elem_id_alloca(&id);
    snd_ctl_elem_info_set_numid(info, name.number);
    if (snd_ctl_elem_info(_card, info) < 0 || snd_ctl_elem_info_get_type(info) != type ||
        snd_ctl_elem_info_is_readable(info) == 0)
        return {};
    Element element{.number = name.number, .name = name.name};
    element.count = std::min(snd_ctl_elem_info_get_count(info), maxValues);
    element.max = 1;
    if (type == SND_CTL_ELEM_TYPE_INTEGER) {
        element.min = snd_ctl_elem_info_get_min(info);
        element.max = snd_ctl_elem_info_get_max(info);
        snd_ctl_elem_id_set_numid(id, name.number);
        if (snd_ctl_get_dB_range(_card, id, &element.minDecibels, &element.maxDecibels) < 0 ||
            element.minDecibels >= element.maxDecibels)
            element.minDecibels = element.maxDecibels = 0;
    } else if (type == SND_CTL_ELEM_TYPE_ENUMERATED) {
        const unsigned items = std::min(snd_ctl_elem_info_get_items(info), maxItems);
        for (unsigned item = 0; item < items; ++item) {
            snd_ctl_elem_info_set_item(info, item);
            if (snd_ctl_elem_info(_card, info) < 0)
                break;
            const char* const text = snd_ctl_elem_info_get_item_name(info);
            element.items.push_back(platform::utf8Replaced(std::string_view(text, strnlen(text, 64))));
        }
        element.max = static_cast<long>(element.items.size()) - 1;
    }
    return element.count > 0 && element.min < element.max ? element : Element();
}

void AlsaControls::_findJacks(const std::vector<Name>& names, const AlsaPcmInfo& pcm)
{
    for (const Name& each : names) {
        if (each.interface != SND_CTL_ELEM_IFACE_CARD || !each.name.ends_with(" Jack") ||
            each.name.ends_with("Phantom Jack"))
            continue;
        const bool isOutput = isOutputJack(each.name);
        const int number = pcmOfJack(each.name);
        if (number >= 0 ? static_cast<unsigned>(number) != pcm.number : !pcm.isFirst[isOutput ? 1 : 0])
            continue;
        if (const Element jack = _describe(each, SND_CTL_ELEM_TYPE_BOOLEAN))
            _side(isOutput ? HALDirection::Output : HALDirection::Input).jacks.push_back(jack);
    }
}

// ---- Values

bool AlsaControls::_values(const Element& element, std::vector<long>& values) const
{
    snd_ctl_elem_value_t* value = nullptr;
    snd_ctl_elem_value_alloca(&value);
    snd_ctl_elem_value_set_numid(value, element.number);
    if (!element || snd_ctl_elem_read(_card, value) < 0)
        return false;
    values.clear();
    for (unsigned i = 0; i < element.count; ++i) {
        const long raw = element.items.empty()
                             ? snd_ctl_elem_value_get_integer(value, i)
                             : static_cast<long>(snd_ctl_elem_value_get_enumerated(value, i));
        values.push_back(std::clamp(raw, element.min, element.max));
    }
    return true;
}

int AlsaControls::_write(const Element& element, const std::vector<long>& values) const
{
    snd_ctl_elem_value_t* value = nullptr;
    snd_ctl_elem_value_alloca(&value);
    snd_ctl_elem_value_set_numid(value, element.number);
    for (unsigned i = 0; i < values.size(); ++i) {
        if (element.items.empty())
            snd_ctl_elem_value_set_integer(value, i, values[i]);
        else
            snd_ctl_elem_value_set_enumerated(value, i, static_cast<unsigned>(values[i]));
    }
    return std::min(0, snd_ctl_elem_write(_card, value));
}

float AlsaControls::_scalar(const Side& side, unsigned channel, long raw) const
{
    const Element& volume = side.volume;
    if (const auto written = side.written.find(channel);
        written != side.written.end() && written->second.raw == raw)
        return written->second.scalar;
    if (raw <= volume.min)
        return 0.0F;
    if (raw >= volume.max)
        return 1.0F;
    snd_ctl_elem_id_t* id = nullptr;
    snd_ctl_elem_id_alloca(&id);
    snd_ctl_elem_id_set_numid(id, volume.number);
    long decibels = 0;
    if (volume.minDecibels == volume.maxDecibels || snd_ctl_convert_to_dB(_card, id, raw, &decibels) < 0)
        return static_cast<float>((static_cast<double>(raw) - static_cast<double>(volume.min)) /
                                  (static_cast<double>(volume.max) - static_cast<double>(volume.min)));
    const auto below =
        static_cast<float>(std::clamp(decibels, volume.minDecibels, volume.maxDecibels) - volume.maxDecibels);
    return std::min(1.0F, halScalarFromDecibels(below / 100.0F));
}

long AlsaControls::_raw(const Element& volume, float scalar) const
{
    if (!(scalar > 0.0F))
        return volume.min;
    snd_ctl_elem_id_t* id = nullptr;
    snd_ctl_elem_id_alloca(&id);
    snd_ctl_elem_id_set_numid(id, volume.number);
    const double decibels = static_cast<double>(halDecibelsFromScalar(scalar)) * 100.0;
    const long wanted = std::max(volume.minDecibels, volume.maxDecibels + std::lround(decibels));
    long below = 0, above = 0, belowDecibels = 0, aboveDecibels = 0;
    if (volume.minDecibels == volume.maxDecibels ||
        snd_ctl_convert_from_dB(_card, id, wanted, &below, -1) < 0 ||
        snd_ctl_convert_from_dB(_card, id, wanted, &above, 1) < 0 ||
        snd_ctl_convert_to_dB(_card, id, below, &belowDecibels) < 0 ||
        snd_ctl_convert_to_dB(_card, id, above, &aboveDecibels) < 0) {
        const double range = static_cast<double>(volume.max) - static_cast<double>(volume.min);
        above = below = volume.min + std::lround(static_cast<double>(scalar) * range);
    }
    const bool isAboveNearer = std::abs(aboveDecibels - wanted) < std::abs(wanted - belowDecibels);
    return std::clamp(isAboveNearer ? above : below, volume.min, volume.max);
}

void AlsaControls::read(HALDirection direction, uint32_t channelCount, HALDirectionState& state)
{
    const AlsaQuiet quiet;
    const Side& side = _side(direction);
    state.mainVolume.reset();
    state.channelVolumes.clear();
    state.muted.reset();
    std::vector<long> values;
    if (_values(side.volume, values)) {
        float loudest = 0.0F;
        for (unsigned i = 0; i < values.size(); ++i) {
            const float scalar = _scalar(side, i, values[i]);
            loudest = std::max(loudest, scalar);
            if (values.size() == channelCount && channelCount > 1)
                state.channelVolumes.emplace_back(scalar);
        }
        state.mainVolume = loudest;
    }
    if (_values(side.mute, values))
        state.muted = std::ranges::all_of(values, [](long isOn) { return isOn == 0; });
    _readSources(side, direction, state);
}

int AlsaControls::setVolume(HALDirection direction, uint32_t element, float scalar)
{
    const AlsaQuiet quiet;
    Side& side = _side(direction);
    std::vector<long> values;
    if (!_values(side.volume, values) || element > values.size())
        return -ENOENT;
    std::vector<float> scalars;
    for (unsigned i = 0; i < values.size(); ++i)
        scalars.push_back(_scalar(side, i, values[i]));
    const float loudest = *std::ranges::max_element(scalars);
    for (unsigned i = 0; i < values.size(); ++i) {
        if (element != 0 && element != i + 1)
            continue;
        const float balance = element == 0 && loudest > 0.0F ? scalars[i] / loudest : 1.0F;
        const float wanted = scalar * balance;
        values[i] = _raw(side.volume, wanted);
        side.written[i] = {wanted, values[i]};
    }
    return _write(side.volume, values);
}

int AlsaControls::setMuted(HALDirection direction, bool muted)
{
    const AlsaQuiet quiet;
    const Side& side = _side(direction);
    return side.mute ? _write(side.mute, std::vector<long>(side.mute.count, muted ? 0 : 1)) : -ENOENT;
}

// ---- Data sources

void AlsaControls::_readSources(const Side& side, HALDirection direction, HALDirectionState& state) const
{
    state.dataSources.clear();
    state.dataSourceID.reset();
    std::vector<long> values;
    if (_values(side.choice, values)) {
        for (uint32_t item = 0; item < side.choice.items.size(); ++item)
            state.dataSources.push_back({firstItemSource + item, side.choice.items[item]});
        state.dataSourceID = firstItemSource + static_cast<uint32_t>(values[0]);
        return;
    }
    if (side.jacks.empty())
        return;
    state.dataSources.push_back(
        {internalSource, direction == HALDirection::Input ? "Internal Microphone" : "Internal Speaker"});
    state.dataSourceID = internalSource;
    for (const Element& jack : side.jacks) {
        // Kept as long as the card is there: numbers of controls are from 1, so none is the internal one's.
        const uint32_t sourceID = internalSource + jack.number;
        state.dataSources.push_back({sourceID, labelOfJack(jack.name)});
        if (state.dataSourceID == internalSource && _values(jack, values) && values[0] != 0)
            state.dataSourceID = sourceID;
    }
}

/// Jacks choose by themselves.
int AlsaControls::setDataSource(HALDirection direction, uint32_t sourceID)
{
    const AlsaQuiet quiet;
    const Side& side = _side(direction);
    const uint32_t item = sourceID - firstItemSource;
    if (!side.choice || item >= side.choice.items.size())
        return -ENOENT;
    return _write(side.choice, std::vector<long>(side.choice.count, static_cast<long>(item)));
}
