#include "SampleLoops.h"

extern const SampleKernels sampleKernelsAVX2;
constinit const SampleKernels sampleKernelsAVX2 = sampleKernels<8>();
