#pragma once

#include "AudioHardwareTypes.h"

/// Called before each read of a property, or of its size if `isSize`, through the published functions, except
/// on IO threads. The read returns any status other than 0 to its caller instead of a value. For fault tests;
/// the interceptor may call the HAL.
using HALReadInterceptor =
    CXBlock<HALStatus(AudioObjectID objectID, const AudioObjectPropertyAddress& address, bool isSize)>;

/// Replaces the process's interceptor; an empty one removes it.
/// Threads: any.
void halInterceptReads(HALReadInterceptor interceptor);
/// The interceptor's status for a read that is about to be made; 0 without an interceptor.
HALStatus halIntercepted(AudioObjectID objectID, const AudioObjectPropertyAddress& address, bool isSize);
