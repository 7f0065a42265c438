#pragma once

#include <cstdint>

/// The number of property reads by the calling thread that failed so far for any reason other than an unknown
/// property. A caller whose result depends on many reads compares the counts before and after, and repeats
/// the reads if they differ.
/// Threads:   any; each has its own count.
uint64_t halReadFailures() noexcept;
