#pragma once

#include "AudioHardwareTypes.h"

/// Called before a property, or its size when `isSize`, is read through the published functions, off the IO
/// threads: any status but 0 is what they return. For fault tests; may call the HAL itself.
using HALReadInterceptor =
    CXBlock<HALStatus(AudioObjectID objectID, const AudioObjectPropertyAddress& address, bool isSize)>;

/// Installs the process's interceptor instead of the one before; an empty one removes it.
/// Threads: any.
void halInterceptReads(HALReadInterceptor interceptor);
/// The interceptor's status for a read that is about to be made; 0 without one.
HALStatus halIntercepted(AudioObjectID objectID, const AudioObjectPropertyAddress& address, bool isSize);
