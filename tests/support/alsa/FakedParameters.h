#pragma once

#include "FakedCards.h"

#include <sound/asound.h>

/// Narrows a PCM's configuration as the kernel does: to the card's abilities, and by the rules that relate
/// formats, channels, rates, periods and buffers. Returns -EINVAL if no configuration is left.
int fakedRefine(snd_pcm_hw_params& parameters, const FakedCardOptions& card, bool isCapture);
snd_interval& fakedInterval(snd_pcm_hw_params& parameters, unsigned number);
