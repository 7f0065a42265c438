#include "SamplerLoops.h"

extern const SamplerKernels samplerKernelsAVX512;
constinit const SamplerKernels samplerKernelsAVX512 = samplerKernels<16>();
