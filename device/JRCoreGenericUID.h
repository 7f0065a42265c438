#pragma once

#include "CXExport.h"

#include <cstdint>
#include <optional>
#include <string>

// Generic unique IDs: what is left of a device's unique ID when the parts are blanked that change from port
// to port, or from unit to unit of one model. By it a device is known again when it is plugged in elsewhere.
// Threads:   any.
// Real time: no; they ask the system about its bus.

/// Whether devices of this transport can have a generic ID: kAudioDeviceTransportTypeUSB and …DisplayPort
/// can.
extern "C" DXR_EXPORT bool JRCoreTransportCouldBeGeneric(uint32_t transport);

/// The generic form of `deviceUID`; nothing when it has none. By transport:
/// USB, "AppleUSBAudioEngine:MAKER:PRODUCT:SERIAL:INTERFACE": the ID of a present engine, its last part
/// emptied, and the one before it too unless that is the device's serial number.
/// USB, any other ID: what stands before the first text in it that is the location ID of a present device, in
/// eight hexadecimal digits (or fewer, after spaces) behind a character that is none.
/// DisplayPort, "AppleGFXHDAEngineOutputDP:…}": all parts but the first and the last emptied.
DXR_EXPORT std::optional<std::string> JRCoreCreateGenericUID(uint32_t transport,
                                                             const std::optional<std::string>& deviceUID);
