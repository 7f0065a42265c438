#pragma once

#include "DXRDeviceManager.h"

/// Creates a manager in addition to the shared one, after the initial enumeration, for comparing the two. All
/// managers share the lock and the queue. Must not be called on the queue.
CXRef<DXRDeviceManager> DXRNewDeviceManager();
