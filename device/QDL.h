#pragma once

#include "AudioHardware.h"

#include <optional>
#include <string>
#include <vector>

// Small questions to the audio hardware, each with a plain value as its result: one property read (or
// written), for callers that want no device object.
// Threads: any.
// Real time: no; they allocate, and the writes may wait for the hardware.
// Fails: quietly, with the value named below; nothing is logged. Object ID 0 is no object, as argument and as
//        result.
// `input` chooses the direction: the device's input when true, its output when false.

extern "C" {

/// The default devices; 0 when there is none.
DXR_EXPORT AudioObjectID QDLAudioDeviceDefaultInputDeviceID();
DXR_EXPORT AudioObjectID QDLAudioDeviceDefaultOutputDeviceID();
/// The default for alerts and sound effects; 0 when there is none.
DXR_EXPORT AudioObjectID QDLAudioDeviceDefaultSystemOutputDeviceID();

/// The device of an outside virtual audio driver that is known by its fixed UID, "GDAudioDevice_UID"; 0 when
/// it is not installed. It hides itself while it is off.
DXR_EXPORT AudioObjectID QDLAudioDeviceBoomAudioID();

/// A kAudioDeviceTransportType… code; 0 when it cannot be read.
DXR_EXPORT uint32_t QDLAudioDeviceTransportTypeFromDeviceID(AudioObjectID deviceID);
/// Whether users should not be shown the device; true when that cannot be read, as for a device that is gone.
DXR_EXPORT bool QDLAudioDeviceIsHidden(AudioObjectID deviceID);

/// The channels of all streams of the direction together; 0 when they cannot be read.
DXR_EXPORT uint32_t QDLAudioDeviceChannelCount(AudioObjectID deviceID, bool input);
/// Whether the direction has any stream's buffer; false when that cannot be read.
DXR_EXPORT bool QDLAudioDeviceHasBuffers(AudioObjectID deviceID, bool input);
/// The streams of the direction; 0 when they cannot be read.
DXR_EXPORT uint32_t QDLAudioDeviceStreamCount(AudioObjectID deviceID, bool input);
/// The nominal rate in Hz; 0.0 when it cannot be read.
DXR_EXPORT double QDLAudioDeviceSampleRate(AudioObjectID deviceID, bool input);
/// The largest nominal rate, in Hz, of the devices that have a buffer in the direction; 0.0 when none has.
DXR_EXPORT double QDLAudioDeviceMaximumSampleRate(bool input);
/// Whether `sampleRate` is one to work with: 1000 to 1000000 Hz, both included.
DXR_EXPORT bool QDLAudioDeviceSampleRateIsValid(double sampleRate);

/// Every device, in no particular order, in memory from malloc() that the caller frees, never null while
/// there is memory; stores how many they are in `count`, if given. The device of QDLAudioDeviceBoomAudioID()
/// is among them exactly when it is not hidden, regardless of the hardware's list. Devices that come and go
/// meanwhile may be missing.
DXR_EXPORT AudioObjectID* QDLAudioDeviceIDList(uint32_t* count);

/// The direction's data sources, in memory from malloc() that the caller frees; stores how many in `count`,
/// if given. Null and 0 when there are none or their number cannot be read; zeroes when only the sources
/// cannot.
DXR_EXPORT uint32_t* QDLDataSourceIDsFromDeviceID(AudioObjectID deviceID, bool input, uint32_t* count);
/// The current data source; 0 when there is none.
DXR_EXPORT uint32_t QDLCurrentDataSourceForDeviceID(AudioObjectID deviceID, bool input);
}

/// The default devices' UIDs; nothing when there is no such device or it does not say.
DXR_EXPORT std::optional<std::string> QDLAudioDeviceDefaultInputDeviceUID();
DXR_EXPORT std::optional<std::string> QDLAudioDeviceDefaultOutputDeviceUID();
DXR_EXPORT std::optional<std::string> QDLAudioDeviceDefaultSystemOutputDeviceUID();

/// Between IDs and UIDs; nothing, or 0, when there is no such device.
DXR_EXPORT std::optional<std::string> QDLAudioDeviceUIDFromDeviceID(AudioObjectID deviceID);
DXR_EXPORT AudioObjectID QDLAudioDeviceIDFromUID(const std::optional<std::string>& uid);

/// What the device says of itself, as UTF-8; nothing when it does not.
DXR_EXPORT std::optional<std::string> QDLAudioDeviceNameFromDeviceID(AudioObjectID deviceID);
DXR_EXPORT std::optional<std::string> QDLAudioDeviceManufacturerFromDeviceID(AudioObjectID deviceID);
DXR_EXPORT std::optional<std::string> QDLAudioDeviceModelUIDFromDeviceID(AudioObjectID deviceID);

/// Which of the direction's streams the IO callback uses, in their order. Empty for ID 0, for no callback,
/// and when it cannot be read.
DXR_EXPORT std::vector<bool> QDLAudioDeviceGetStreamUsage(AudioObjectID deviceID, AudioDeviceIOProcID procID,
                                                          bool input);
/// Says which of the direction's streams the IO callback uses. Streams beyond the end of `usage`, or all of
/// them without one, are switched off. Does nothing for ID 0 or no callback.
DXR_EXPORT void QDLAudioDeviceSetStreamUsage(AudioObjectID deviceID, AudioDeviceIOProcID procID, bool input,
                                             const std::optional<std::vector<bool>>& usage);

/// The name of a data source; empty when it has none, and for device or source 0.
DXR_EXPORT std::string QDLSourceNameFromDataSource(AudioObjectID deviceID, uint32_t sourceID, bool input);
/// The name of the current data source; empty when there is none.
DXR_EXPORT std::string QDLCurrentSourceNameFromDeviceID(AudioObjectID deviceID, bool input);
/// The first data source of that name. A source whose name cannot be read has the empty one. 0 when there is
/// none, without a name, and for device 0.
DXR_EXPORT uint32_t QDLDataSourceIDFromSourceName(AudioObjectID deviceID, bool input,
                                                  const std::optional<std::string>& name);
