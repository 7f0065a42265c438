#pragma once

#include "AudioRecords.h"

#include <cstdint>
#include <string>
#include <vector>

// What the two stream classes share about a format. Any thread.

namespace streamFormat {

/// Packed 32-bit float samples, interleaved.
AudioStreamBasicDescription virtualFormat(uint32_t channelCount, double sampleRate) noexcept;
bool isMixable(const AudioStreamBasicDescription& format) noexcept;
size_t hash(const AudioStreamBasicDescription& format) noexcept;
/// "44.1kHz".
std::string rateText(double sampleRate);
/// What a description says after the rate: the channel count, unless it is the one given, and the format,
/// unless it is float.
std::vector<std::string> parts(const AudioStreamBasicDescription& format, std::string rate,
                               uint32_t knownChannelCount);
/// "(part, part)".
std::string joined(const std::vector<std::string>& parts);

} // namespace streamFormat
