#include "PolyphaseLoops.h"

extern const PolyphaseKernels polyphaseKernelsAVX2;
constinit const PolyphaseKernels polyphaseKernelsAVX2 = polyphaseKernels<8>();
