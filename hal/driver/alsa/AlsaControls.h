#pragma once

#include "AlsaIdentity.h"
#include "HALDeviceState.h"
#include "HALVolume.h"

#include <alsa/asoundlib.h>

/// A card's controls, as alsa-lib keeps them in step with the card.
struct AlsaMixer {
    snd_mixer_t* elements = nullptr; ///< volumes and switches
    snd_hctl_t* all = nullptr;       ///< and the rest
};

/// The controls of a card that belong to one of its PCMs: volume, mute, the choice of an input, jacks.
/// Amplitude 1 is the control's maximum.
/// Threads: one at a time; the card's lock is held.
class AlsaControls {
public:
    explicit AlsaControls(AlsaPcmInfo pcm) : _pcm(std::move(pcm)) {}

    /// Reads volumes, mute and data sources of a direction that has `channelCount` channels.
    void read(const AlsaMixer& mixer, HALDirection direction, uint32_t channelCount,
              HALDirectionState& state);

    /// All return 0 or a negative errno; -ENOENT where there is no such control.
    int setVolume(const AlsaMixer& mixer, HALDirection direction, uint32_t element, float scalar);
    int setMuted(const AlsaMixer& mixer, HALDirection direction, bool muted) const;
    int setDataSource(const AlsaMixer& mixer, HALDirection direction, uint32_t sourceID) const;

private:
    /// The volume of a direction. What the control rounds to its steps reads as it was written.
    struct Volume {
        HALVolume amplitudes;
        std::vector<long> steps; ///< of the control, for which these are the amplitudes
    };
    struct Functions;
    static const Functions functions[2];

    snd_mixer_elem_t* _find(const AlsaMixer& mixer, HALDirection direction,
                            int (*has)(snd_mixer_elem_t*)) const;
    snd_mixer_elem_t* _readVolume(const AlsaMixer& mixer, HALDirection direction);
    snd_hctl_elem_t* _choice(const AlsaMixer& mixer, HALDirection direction) const;
    void _readChoice(snd_hctl_elem_t* choice, HALDirectionState& state) const;
    void _readJacks(const AlsaMixer& mixer, HALDirection direction, HALDirectionState& state) const;

    const AlsaPcmInfo _pcm;
    std::array<Volume, 2> _volumes; // by HALDirection
};
