#pragma once

#include "Terminal.h"

#include <utility>

// Bars of text. Threads: any.

/// A level, where 1.0 is full scale, as a bar from -60 to 0 dB: green, yellow from -12 dB, red from -3 dB.
std::string levelBar(float level, size_t width, const Terminal& terminal);
/// The filled and the empty part of a bar, together `width` columns wide; `share` is 0 to 1.
std::pair<std::string, std::string> shareBar(double share, size_t width, const char* full, const char* rest);
