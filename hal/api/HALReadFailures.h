#pragma once

#include <cstdint>

/// How many reads of properties by the calling thread have failed so far for any other reason than that there
/// is no such property: a caller that builds on many reads compares two counts, and reads again if they
/// differ.
/// Threads:   any; each has its own count.
uint64_t halReadFailures() noexcept;
