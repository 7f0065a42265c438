#pragma once

#include "AlsaIdentity.h"
#include "HALDeviceState.h"
#include "HALVolume.h"

#include <alsa/asoundlib.h>

/// A card's controls, which alsa-lib keeps up to date.
struct AlsaMixer {
    snd_mixer_t* elements = nullptr; ///< volumes and switches
    snd_hctl_t* all = nullptr;       ///< all controls
};

/// The controls of a card that belong to one direction of one of its PCMs: volume, mute, input selection,
/// jacks. Amplitude 1 is the control's maximum.
/// Threads: one at a time; the card's lock is held.
class AlsaControls {
public:
    AlsaControls(AlsaPcmInfo pcm, HALDirection direction);

    /// Reads volumes, mute and data sources; the direction has `channelCount` channels.
    void read(const AlsaMixer& mixer, uint32_t channelCount, HALDirectionState& state);

    /// Each returns 0 or a negative errno; -ENOENT if there is no such control.
    int setVolume(const AlsaMixer& mixer, uint32_t element, float scalar);
    int setMuted(const AlsaMixer& mixer, bool muted) const;
    int setDataSource(const AlsaMixer& mixer, uint32_t sourceID) const;

private:
    struct Functions;
    class Scale;

    snd_mixer_elem_t* _find(const AlsaMixer& mixer, int (*has)(snd_mixer_elem_t*)) const;
    snd_mixer_elem_t* _readVolume(const AlsaMixer& mixer);
    snd_hctl_elem_t* _choice(const AlsaMixer& mixer) const;
    void _readChoice(snd_hctl_elem_t* choice, HALDirectionState& state) const;
    void _readJacks(const AlsaMixer& mixer, HALDirectionState& state) const;

    static const Functions functions[2]; // by HALDirection

    const AlsaPcmInfo _pcm;
    const HALDirection _direction;
    const bool _isCards; // whether the card's controls belong to this PCM
    const Functions& _functions;
    // The volume as written, before the control rounded it to its steps: a read returns the written value.
    HALVolume _volume;
    std::vector<long> _steps; // the control's steps at which _volume is valid
};
