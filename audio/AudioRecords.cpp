#include "AudioRecords.h"

#include <cstddef>

// Archives contain these records byte for byte.
static_assert(sizeof(AudioValueRange) == 16);
static_assert(sizeof(AudioStreamBasicDescription) == 40);
static_assert(sizeof(AudioStreamRangedDescription) == 56);
static_assert(sizeof(AudioBuffer) == 16 && offsetof(AudioBuffer, data) == 8);
static_assert(offsetof(AudioBufferList, buffers) == 8);
static_assert(sizeof(SMPTETime) == 24);
static_assert(sizeof(AudioTimeStamp) == 64 && offsetof(AudioTimeStamp, flags) == 56);
