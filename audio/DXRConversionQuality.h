#pragma once

/// How a converter changes the sample rate.
///           error at 10 kHz, 44.1 to 48 kHz   delay       use
/// Standard  -31 dB                            2 frames    lowest delay and cost
/// High      below -110 dB                     32 frames   listening, recording, measuring
/// Delays are in input frames. If the output rate is lower, the delay of High grows with the ratio of the
/// rates. Beyond a ratio of 32, Standard is used.
enum class DXRConversionQuality { Standard, High };
