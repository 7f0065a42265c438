#pragma once

#include <cstdint>
#include <string>

// Numbers as people read them.
// Threads: any.

/// As printf() would print it.
std::string formatText(const char* format, ...) __attribute__((format(printf, 1, 2)));
/// A rate in Hz as "44.1 kHz"; "-" when it is 0.
std::string formatRate(double rate);
/// A scalar 0..1 as "70%".
std::string formatPercent(double scalar);
/// A peak or level as decibels below full scale, "-6.0 dB"; "-inf dB" for silence.
std::string formatLevel(double amplitude);
/// "0.0 s", "1:02.5" from a minute up.
std::string formatSeconds(double seconds);
/// "1 frame", "2 frames"; groups thousands.
std::string formatCount(uint64_t count, const char* singular, const char* plural);
