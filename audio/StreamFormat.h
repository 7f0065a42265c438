#pragma once

#include "AudioRecords.h"

#include <cstdint>
#include <string>
#include <vector>

// Functions on formats that both stream classes use. Threads: any.

namespace streamFormat {

/// Packed 32-bit float samples, interleaved.
AudioStreamBasicDescription virtualFormat(uint32_t channelCount, double sampleRate) noexcept;
bool isMixable(const AudioStreamBasicDescription& format) noexcept;
size_t hash(const AudioStreamBasicDescription& format) noexcept;
/// "44.1kHz".
std::string rateText(double sampleRate);
/// The parts of a description: the rate, the channel count unless it is `knownChannelCount`, and the sample
/// format unless it is float.
std::vector<std::string> parts(const AudioStreamBasicDescription& format, std::string rate,
                               uint32_t knownChannelCount);
/// "(part, part)".
std::string joined(const std::vector<std::string>& parts);

} // namespace streamFormat
