#pragma once

#include "SerialQueue.h"

namespace dxr_c {

/// The queue on which callbacks for changes are called. Never destroyed: it may be in use when the process
/// ends.
dxr::SerialQueue& events();
/// Waits until every pending callback for changes has returned, unless called by one of them.
void waitForEvents();

} // namespace dxr_c
