#pragma once

#include "AudioHardware.h"
#include "CXPlist.h"

// Keys of the dictionary that describes the composition of an aggregate device.
inline constexpr const char* aggregateSubdevicesKey = "subdevices"; ///< an array of dictionaries
inline constexpr const char* aggregateUIDKey = "uid";
/// The key of a part's channel count in a direction.
inline constexpr const char* aggregateChannelsKey(bool isInput)
{
    return isInput ? "channels-in" : "channels-out";
}

/// The composition of `deviceID`; null if the device is not an aggregate or cannot be read.
CXPlist aggregateComposition(AudioObjectID deviceID);
