#pragma once

/// How a converter changes the rate.
///              error at 10 kHz, 44.1 to 48 kHz delay for Standard -31 dB 2 frames lowest delay and cost High
///              below -110 dB 32 frames listening, recording, measuring Frames are the input's; downwards the
///              high quality's delay grows with the ratio of the rates. Beyond a ratio of 32 the standard one
///              is used.
enum class DXRConversionQuality { Standard, High };
