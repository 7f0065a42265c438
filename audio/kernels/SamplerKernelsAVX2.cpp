#include "SamplerLoops.h"

extern const SamplerKernels samplerKernelsAVX2;
constinit const SamplerKernels samplerKernelsAVX2 = samplerKernels<8>();
