#pragma once

#include "AudioHardware.h"

#include <optional>
#include <string>
#include <vector>

// Functions that read (or write) one property of the audio hardware each and return a plain value, for
// callers that need no device object.
// Threads:   any.
// Real time: no; they allocate, and the writes may wait for the hardware.
// Fails:     silently, with the value named below; nothing is logged. As an argument and as a result, object
//            ID 0 means no object.
// `input` chooses the direction: the device's input if true, its output if false.

extern "C" {

/// The default devices; 0 if there is none.
DXR_EXPORT AudioObjectID QDLAudioDeviceDefaultInputDeviceID();
DXR_EXPORT AudioObjectID QDLAudioDeviceDefaultOutputDeviceID();
/// The default device for alerts and sound effects; 0 if there is none.
DXR_EXPORT AudioObjectID QDLAudioDeviceDefaultSystemOutputDeviceID();

/// The device of a third-party virtual audio driver with the fixed UID "GDAudioDevice_UID"; 0 if it is not
/// installed. The device is hidden while it is off.
DXR_EXPORT AudioObjectID QDLAudioDeviceBoomAudioID();

/// A kAudioDeviceTransportType… code; 0 if it cannot be read.
DXR_EXPORT uint32_t QDLAudioDeviceTransportTypeFromDeviceID(AudioObjectID deviceID);
/// Whether the device should be hidden from users; true if this cannot be read, for example after unplugging.
DXR_EXPORT bool QDLAudioDeviceIsHidden(AudioObjectID deviceID);

/// The total channel count of the direction's streams; 0 if it cannot be read.
DXR_EXPORT uint32_t QDLAudioDeviceChannelCount(AudioObjectID deviceID, bool input);
/// Whether the direction has a buffer of any stream; false if this cannot be read.
DXR_EXPORT bool QDLAudioDeviceHasBuffers(AudioObjectID deviceID, bool input);
/// The number of streams of the direction; 0 if it cannot be read.
DXR_EXPORT uint32_t QDLAudioDeviceStreamCount(AudioObjectID deviceID, bool input);
/// The nominal rate in Hz; 0.0 if it cannot be read.
DXR_EXPORT double QDLAudioDeviceSampleRate(AudioObjectID deviceID, bool input);
/// The largest nominal rate, in Hz, of the devices that have a buffer in the direction; 0.0 if there are
/// none.
DXR_EXPORT double QDLAudioDeviceMaximumSampleRate(bool input);
/// Whether `sampleRate` is in the supported range: 1000 to 1000000 Hz inclusive.
DXR_EXPORT bool QDLAudioDeviceSampleRateIsValid(double sampleRate);

/// All devices, in no particular order, in memory from malloc() that the caller frees; null only if memory is
/// exhausted. Stores their number in `count`, if given. The device of QDLAudioDeviceBoomAudioID() is included
/// exactly if it is not hidden, regardless of the hardware's list. Devices that appear or disappear during
/// the call may be missing.
DXR_EXPORT AudioObjectID* QDLAudioDeviceIDList(uint32_t* count);

/// The direction's data sources, in memory from malloc() that the caller frees; stores their number in
/// `count`, if given. Returns null and 0 if there are none or their number cannot be read; returns zeroes if
/// only the sources cannot be read.
DXR_EXPORT uint32_t* QDLDataSourceIDsFromDeviceID(AudioObjectID deviceID, bool input, uint32_t* count);
/// The current data source; 0 if there is none.
DXR_EXPORT uint32_t QDLCurrentDataSourceForDeviceID(AudioObjectID deviceID, bool input);
}

/// The default devices' UIDs; empty if there is no such device or the UID cannot be read.
DXR_EXPORT std::optional<std::string> QDLAudioDeviceDefaultInputDeviceUID();
DXR_EXPORT std::optional<std::string> QDLAudioDeviceDefaultOutputDeviceUID();
DXR_EXPORT std::optional<std::string> QDLAudioDeviceDefaultSystemOutputDeviceUID();

/// Convert between IDs and UIDs; empty, or 0, if there is no such device.
DXR_EXPORT std::optional<std::string> QDLAudioDeviceUIDFromDeviceID(AudioObjectID deviceID);
DXR_EXPORT AudioObjectID QDLAudioDeviceIDFromUID(const std::optional<std::string>& uid);

/// The device's own description, as UTF-8; empty if it cannot be read.
DXR_EXPORT std::optional<std::string> QDLAudioDeviceNameFromDeviceID(AudioObjectID deviceID);
DXR_EXPORT std::optional<std::string> QDLAudioDeviceManufacturerFromDeviceID(AudioObjectID deviceID);
DXR_EXPORT std::optional<std::string> QDLAudioDeviceModelUIDFromDeviceID(AudioObjectID deviceID);

/// Which of the direction's streams the IO callback uses, in the streams' order. Empty for device 0, for a
/// null callback, and if it cannot be read.
DXR_EXPORT std::vector<bool> QDLAudioDeviceGetStreamUsage(AudioObjectID deviceID, AudioDeviceIOProcID procID,
                                                          bool input);
/// Sets which of the direction's streams the IO callback uses. Streams beyond the end of `usage`, or all
/// streams without a `usage`, are switched off. Does nothing for device 0 or a null callback.
DXR_EXPORT void QDLAudioDeviceSetStreamUsage(AudioObjectID deviceID, AudioDeviceIOProcID procID, bool input,
                                             const std::optional<std::vector<bool>>& usage);

/// The name of a data source; empty if it has none, and for device or source 0.
DXR_EXPORT std::string QDLSourceNameFromDataSource(AudioObjectID deviceID, uint32_t sourceID, bool input);
/// The name of the current data source; empty if there is none.
DXR_EXPORT std::string QDLCurrentSourceNameFromDeviceID(AudioObjectID deviceID, bool input);
/// The first data source with that name. A source whose name cannot be read counts as having an empty name.
/// Returns 0 if there is no such source, without a name, and for device 0.
DXR_EXPORT uint32_t QDLDataSourceIDFromSourceName(AudioObjectID deviceID, bool input,
                                                  const std::optional<std::string>& name);
