#include "PolyphaseLoops.h"

constinit const PolyphaseKernels polyphaseKernels4 = polyphaseKernels<4>();
