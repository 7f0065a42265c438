#include "PolyphaseLoops.h"

extern const PolyphaseKernels polyphaseKernelsAVX512;
constinit const PolyphaseKernels polyphaseKernelsAVX512 = polyphaseKernels<16>();
