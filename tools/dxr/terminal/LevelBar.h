#pragma once

#include "Terminal.h"

/// A level as a bar of `width` columns, from -60 to 0 dB of full scale: green, yellow from -12 dB, red from -3 dB.
/// Threads: any.
std::string levelBar(float level, size_t width, const Terminal& terminal);
