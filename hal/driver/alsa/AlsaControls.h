#pragma once

#include "HALDeviceState.h"

#include <alsa/asoundlib.h>
#include <array>
#include <map>
#include <string>
#include <vector>

/// A PCM of a card.
struct AlsaPcmInfo {
    unsigned number = 0;
    std::string id = {}, name = {};
    std::array<bool, 2> has{}; ///< by HALDirection
    std::array<bool, 2>
        isFirst{}; ///< whether the card's controls without a number of their own are this one's
    bool operator==(const AlsaPcmInfo&) const = default;
};

/// The controls of a card that belong to one of its PCMs: volume, mute, the choice of an input, jacks.
/// A scalar is the cube root of the amplitude (see halScalarFromDecibels()), 1 being the control's maximum.
/// Threads: one at a time; the card's lock is held.
class AlsaControls {
public:
    /// Looks for them among the controls of the card, as they are now.
    void find(snd_ctl_t* card, const AlsaPcmInfo& pcm);
    /// Reads volumes, mute and data sources of a direction that has `channelCount` channels.
    void read(HALDirection direction, uint32_t channelCount, HALDirectionState& state);

    /// All return 0 or a negative errno; -ENOENT where there is no such control.
    int setVolume(HALDirection direction, uint32_t element, float scalar);
    int setMuted(HALDirection direction, bool muted);
    int setDataSource(HALDirection direction, uint32_t sourceID);

private:
    /// One control.
    struct Element {
        unsigned number = 0; ///< 0: there is none
        std::string name = {};
        unsigned count = 0; ///< of values
        long min = 0, max = 0;
        long minDecibels = 0, maxDecibels = 0; ///< hundredths; equal where they are not known
        std::vector<std::string> items = {};   ///< of a choice
        explicit operator bool() const noexcept { return number != 0; }
    };
    /// A volume as it was last written: what the control rounds to its steps reads as it was asked for.
    struct Written {
        float scalar;
        long raw;
    };
    struct Side {
        Element volume, mute, choice;
        std::vector<Element> jacks;
        std::map<unsigned, Written> written; ///< by channel, from 0
    };

    struct Name;
    std::vector<Name> _names() const;
    Element _pick(const std::vector<Name>& names, const AlsaPcmInfo& pcm, HALDirection direction,
                  const std::string& ending, snd_ctl_elem_type_t type) const;
    Element _describe(const Name& name, snd_ctl_elem_type_t type) const;
    void _findJacks(const std::vector<Name>& names, const AlsaPcmInfo& pcm);
    bool _values(const Element& element, std::vector<long>& values) const;
    int _write(const Element& element, const std::vector<long>& values) const;
    float _scalar(const Side& side, unsigned channel, long raw) const;
    long _raw(const Element& volume, float scalar) const;
    void _readSources(const Side& side, HALDirection direction, HALDirectionState& state) const;
    Side& _side(HALDirection direction) { return _sides[static_cast<size_t>(direction)]; }

    snd_ctl_t* _card = nullptr;
    std::array<Side, 2> _sides;
};
