#include "SampleLoops.h"

extern const SampleKernels sampleKernelsAVX512;
constinit const SampleKernels sampleKernelsAVX512 = sampleKernels<16>();
