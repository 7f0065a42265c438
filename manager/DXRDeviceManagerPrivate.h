#pragma once

#include "DXRDeviceManager.h"

/// A manager beside the shared one, which has met the devices that are there: for comparing the two. It
/// shares the lock and the queue with every other. Not from the queue.
CXRef<DXRDeviceManager> DXRNewDeviceManager();
