#pragma once

#include "CXExport.h"

#include <cstdint>
#include <optional>
#include <string>

// Generic unique IDs: a device's unique ID with those parts blanked that differ between ports, or between
// units of one model. They identify a device that is plugged in at another place.
// Threads:   any.
// Real time: no; the functions query the system's USB registry.

/// Whether devices of this transport can have a generic ID: true for kAudioDeviceTransportTypeUSB and
/// …DisplayPort.
extern "C" DXR_EXPORT bool JRCoreTransportCouldBeGeneric(uint32_t transport);

/// The generic form of `deviceUID`; empty if it has none. By transport:
/// USB, "AppleUSBAudioEngine:MAKER:PRODUCT:SERIAL:INTERFACE": the ID of a present engine with its last part
/// emptied, and also SERIAL unless it is the device's serial number.
/// USB, any other ID: the text before the first location ID of a present device, written as eight hexadecimal
/// digits (or fewer, after spaces) and not preceded by a hexadecimal digit.
/// DisplayPort, "AppleGFXHDAEngineOutputDP:…}": all parts except the first and the last emptied.
DXR_EXPORT std::optional<std::string> JRCoreCreateGenericUID(uint32_t transport,
                                                             const std::optional<std::string>& deviceUID);
