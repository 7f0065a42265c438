#include "SamplerLoops.h"

constinit const SamplerKernels samplerKernels4 = samplerKernels<4>();
