#pragma once

#include "auclock.h"
#include "ausampler.h"
#include "autimebase.h"

DXR_BEGIN_C

/// Goes through the C functions from C. Null, or what was wrong.
const char* useOfC(void);

DXR_END_C
