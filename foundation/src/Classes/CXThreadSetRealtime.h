#pragma once

#include "CXExport.h"

/// Puts the calling thread under real-time scheduling for work every millisecond that takes a tenth of it. A
/// refusal is logged and changes nothing. Waits, a second at most.
DXR_EXPORT void CXThreadSetRealtime();
