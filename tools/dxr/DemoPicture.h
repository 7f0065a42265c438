#pragma once

#include "DemoHistory.h"

/// The picture of a run of the demo, as SVG, with a line of `results` above: which devices were there, what ran, how the
/// clocks drifted, the sample time against the clock on the wall, and what was heard. Threads: any.
std::string demoPicture(const DemoHistory& history, const std::string& results);
