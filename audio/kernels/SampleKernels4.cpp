#include "SampleLoops.h"

constinit const SampleKernels sampleKernels4 = sampleKernels<4>();
