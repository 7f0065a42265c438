#pragma once

#include "AudioHardware.h"
#include "CXPlist.h"

// The dictionary that says what an aggregate device is made of, by its keys.
inline constexpr const char* aggregateSubdevicesKey = "subdevices"; ///< an array of dictionaries
inline constexpr const char* aggregateUIDKey = "uid";
/// How many channels a part has, as the aggregate knows it.
inline constexpr const char* aggregateChannelsKey(bool isInput)
{
    return isInput ? "channels-in" : "channels-out";
}

/// The composition of `deviceID`; null when it is none or cannot be read.
CXPlist aggregateComposition(AudioObjectID deviceID);
