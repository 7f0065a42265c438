#pragma once

#include "FakedCards.h"

#include <sound/asound.h>

/// Narrows a PCM's configuration as the kernel does: by what the card can do, and by the rules between formats, channels,
/// rates, periods and buffers. -EINVAL when nothing is left.
int fakedRefine(snd_pcm_hw_params& parameters, const FakedCardOptions& card, bool isCapture);
snd_interval& fakedInterval(snd_pcm_hw_params& parameters, unsigned number);
