#pragma once

#include "AudioRecords.h"
#include "CXBlock.h"
#include "CXFourCharCode.h"

#include <cstddef>
#include <cstdint>

// The records and constants of the audio hardware layer (HAL); its functions are in AudioHardware.h.

/// A HAL object: the system object, a device, or a stream of a device. 0 means no object. IDs are never
/// reused in a process.
using AudioObjectID = uint32_t;
/// 0 if the call succeeded, else one of the kAudioHardware…Error codes.
using HALStatus = int32_t;

inline constexpr AudioObjectID kAudioObjectUnknown = 0;
inline constexpr AudioObjectID kAudioObjectSystemObject = 1;

// ---- Statuses

inline constexpr HALStatus kAudioHardwareNoError = 0;
/// 'stop': the device is not running, and the call requires a running device.
inline constexpr HALStatus kAudioHardwareNotRunningError = static_cast<HALStatus>(CXFourCharCode("stop"));
/// 'what': the hardware or the sound server failed, or did not reply in time.
inline constexpr HALStatus kAudioHardwareUnspecifiedError = static_cast<HALStatus>(CXFourCharCode("what"));
/// 'who?': the object has no such property in that scope and element.
inline constexpr HALStatus kAudioHardwareUnknownPropertyError =
    static_cast<HALStatus>(CXFourCharCode("who?"));
/// '!siz': the buffer or the qualifier has the wrong size for the property.
inline constexpr HALStatus kAudioHardwareBadPropertySizeError =
    static_cast<HALStatus>(CXFourCharCode("!siz"));
/// 'nope': the call is invalid: a null pointer where none is allowed, a value out of range, a property that
/// cannot be written.
inline constexpr HALStatus kAudioHardwareIllegalOperationError =
    static_cast<HALStatus>(CXFourCharCode("nope"));
/// '!obj': the object does not exist or no longer exists.
inline constexpr HALStatus kAudioHardwareBadObjectError = static_cast<HALStatus>(CXFourCharCode("!obj"));
/// '!dev': the object is not a device or no longer exists.
inline constexpr HALStatus kAudioHardwareBadDeviceError = static_cast<HALStatus>(CXFourCharCode("!dev"));

// ---- Property addresses

struct AudioObjectPropertyAddress {
    uint32_t selector; ///< which property: a four-character code
    uint32_t scope;    ///< kAudioObjectPropertyScope…
    uint32_t element;  ///< 0: the main element; from 1: channels

    friend bool operator==(const AudioObjectPropertyAddress&, const AudioObjectPropertyAddress&) = default;
};

inline constexpr uint32_t kAudioObjectPropertyScopeGlobal = CXFourCharCode("glob");
inline constexpr uint32_t kAudioObjectPropertyScopeInput = CXFourCharCode("inpt");
inline constexpr uint32_t kAudioObjectPropertyScopeOutput = CXFourCharCode("outp");
inline constexpr uint32_t kAudioObjectPropertyScopeWildcard = CXFourCharCode("****");
inline constexpr uint32_t kAudioObjectPropertySelectorWildcard = CXFourCharCode("****");
inline constexpr uint32_t kAudioObjectPropertyElementMain = 0;
inline constexpr uint32_t kAudioObjectPropertyElementWildcard = 0xFFFFFFFF;

// Of every object
inline constexpr uint32_t kAudioObjectPropertyClass = CXFourCharCode("clas");        ///< uint32_t
inline constexpr uint32_t kAudioObjectPropertyBaseClass = CXFourCharCode("bcls");    ///< uint32_t
inline constexpr uint32_t kAudioObjectPropertyOwner = CXFourCharCode("stdv");        ///< AudioObjectID
inline constexpr uint32_t kAudioObjectPropertyOwnedObjects = CXFourCharCode("ownd"); ///< AudioObjectID array
inline constexpr uint32_t kAudioObjectPropertyName =
    CXFourCharCode("lnam"); ///< CXValue string; writable for aggregate devices
inline constexpr uint32_t kAudioObjectPropertyManufacturer = CXFourCharCode("lmak"); ///< CXValue string
inline constexpr uint32_t kAudioObjectPropertyElementName = CXFourCharCode("lchn");  ///< CXValue string

// Of the system object, global scope
inline constexpr uint32_t kAudioHardwarePropertyDevices = CXFourCharCode("dev#"); ///< AudioObjectID array
inline constexpr uint32_t kAudioHardwarePropertyDefaultInputDevice =
    CXFourCharCode("dIn "); ///< AudioObjectID
inline constexpr uint32_t kAudioHardwarePropertyDefaultOutputDevice =
    CXFourCharCode("dOut"); ///< AudioObjectID
inline constexpr uint32_t kAudioHardwarePropertyDefaultSystemOutputDevice =
    CXFourCharCode("sOut"); ///< AudioObjectID
/// AudioValueTranslation from a CXValue string's address (8 bytes) to an AudioObjectID; 0 if not found.
inline constexpr uint32_t kAudioHardwarePropertyDeviceForUID = CXFourCharCode("duid");
/// AudioValueTranslation as above, from a plug-in's bundle ID; always to 0: this HAL has no plug-ins.
inline constexpr uint32_t kAudioHardwarePropertyPlugInForBundleID = CXFourCharCode("bipi");

// Of a device. Global scope, unless the comment says "direction" (input or output scope) or "any scope".
inline constexpr uint32_t kAudioDevicePropertyDeviceUID = CXFourCharCode("uid "); ///< CXValue string
inline constexpr uint32_t kAudioDevicePropertyModelUID = CXFourCharCode("muid");  ///< CXValue string
inline constexpr uint32_t kAudioDevicePropertyTransportType =
    CXFourCharCode("tran"); ///< uint32_t code; any scope
inline constexpr uint32_t kAudioDevicePropertyRelatedDevices =
    CXFourCharCode("akin");                                                         ///< AudioObjectID array
inline constexpr uint32_t kAudioDevicePropertyClockDomain = CXFourCharCode("clkd"); ///< uint32_t, 0 unknown
inline constexpr uint32_t kAudioDevicePropertyDeviceIsRunning = CXFourCharCode("goin"); ///< uint32_t 0 or 1
inline constexpr uint32_t kAudioDevicePropertyDeviceCanBeDefaultDevice =
    CXFourCharCode("dflt"); ///< uint32_t, direction
inline constexpr uint32_t kAudioDevicePropertyDeviceCanBeDefaultSystemDevice =
    CXFourCharCode("sflt");                                                      ///< uint32_t, direction
inline constexpr uint32_t kAudioDevicePropertyIsHidden = CXFourCharCode("hidn"); ///< uint32_t 0 or 1
inline constexpr uint32_t kAudioDevicePropertyLatency =
    CXFourCharCode("ltnc"); ///< uint32_t frames, direction
inline constexpr uint32_t kAudioDevicePropertySafetyOffset =
    CXFourCharCode("saft"); ///< uint32_t frames, direction
inline constexpr uint32_t kAudioDevicePropertyStreams =
    CXFourCharCode("stm#"); ///< AudioObjectID array, any scope
inline constexpr uint32_t kAudioDevicePropertyStreamConfiguration =
    CXFourCharCode("slay"); ///< AudioBufferList, any scope
inline constexpr uint32_t kAudioDevicePropertyNominalSampleRate =
    CXFourCharCode("nsrt"); ///< double Hz, any scope, writable
inline constexpr uint32_t kAudioDevicePropertyActualSampleRate = CXFourCharCode("asrt"); ///< double Hz
/// AudioValueRange array; any scope.
inline constexpr uint32_t kAudioDevicePropertyAvailableNominalSampleRates = CXFourCharCode("nsr#");
inline constexpr uint32_t kAudioDevicePropertyBufferFrameSize =
    CXFourCharCode("fsiz"); ///< uint32_t frames, writable
inline constexpr uint32_t kAudioDevicePropertyBufferFrameSizeRange =
    CXFourCharCode("fsz#"); ///< AudioValueRange
inline constexpr uint32_t kAudioDevicePropertyPreferredChannelsForStereo =
    CXFourCharCode("dch2"); ///< 2 uint32_t, direction
inline constexpr uint32_t kAudioDevicePropertyVolumeScalar =
    CXFourCharCode("volm"); ///< float 0..1, direction, writable
inline constexpr uint32_t kAudioDevicePropertyVolumeDecibels =
    CXFourCharCode("vold"); ///< float dB, direction, writable
inline constexpr uint32_t kAudioDevicePropertyVolumeRangeDecibels =
    CXFourCharCode("vdb#"); ///< AudioValueRange, direction
inline constexpr uint32_t kAudioDevicePropertyMute =
    CXFourCharCode("mute"); ///< uint32_t, direction, writable
inline constexpr uint32_t kAudioDevicePropertyDataSource =
    CXFourCharCode("ssrc"); ///< uint32_t, direction, writable
inline constexpr uint32_t kAudioDevicePropertyDataSources =
    CXFourCharCode("ssc#"); ///< uint32_t array, direction
/// AudioValueTranslation from a uint32_t source ID to a CXValue string; direction.
inline constexpr uint32_t kAudioDevicePropertyDataSourceNameForIDCFString = CXFourCharCode("lscn");
/// AudioHardwareIOProcStreamUsage, in and out; direction, writable.
inline constexpr uint32_t kAudioDevicePropertyIOProcStreamUsage = CXFourCharCode("suse");
/// Cannot be read, only listened to: the device lost cycles. Its sample time has skipped the lost frames.
inline constexpr uint32_t kAudioDeviceProcessorOverload = CXFourCharCode("over");

// Of an aggregate device, global scope
/// CXValue dictionary: the description that the device was created from, completed by the sub-devices'
/// properties. Each dictionary of "subdevices" has "uid", "name", "channels-in" and "channels-out"; an absent
/// sub-device keeps its last channel counts.
inline constexpr uint32_t kAudioAggregateDevicePropertyComposition = CXFourCharCode("acom");
/// AudioObjectID array: the sub-devices that are present, in the order of the composition.
inline constexpr uint32_t kAudioAggregateDevicePropertyActiveSubDeviceList = CXFourCharCode("agrp");
/// AudioAggregateSubDeviceStatus array: the state of the sub-devices' clocks, in the order of the
/// composition. Changes continuously while the device runs, without notification.
inline constexpr uint32_t kAudioAggregateDevicePropertySubDeviceStatus = CXFourCharCode("agst");

// Of a stream
inline constexpr uint32_t kAudioStreamPropertyIsActive = CXFourCharCode("sact"); ///< uint32_t 0 or 1
inline constexpr uint32_t kAudioStreamPropertyDirection =
    CXFourCharCode("sdir"); ///< uint32_t: 0 output, 1 input
inline constexpr uint32_t kAudioStreamPropertyTerminalType = CXFourCharCode("term");    ///< uint32_t
inline constexpr uint32_t kAudioStreamPropertyStartingChannel = CXFourCharCode("schn"); ///< uint32_t, from 1
inline constexpr uint32_t kAudioStreamPropertyLatency = CXFourCharCode("ltnc");         ///< uint32_t frames
inline constexpr uint32_t kAudioStreamPropertyVirtualFormat =
    CXFourCharCode("sfmt"); ///< AudioStreamBasicDescription
inline constexpr uint32_t kAudioStreamPropertyPhysicalFormat =
    CXFourCharCode("pft "); ///< AudioStreamBasicDescription
inline constexpr uint32_t kAudioStreamPropertyAvailableVirtualFormats =
    CXFourCharCode("sfma"); ///< …RangedDescription array
inline constexpr uint32_t kAudioStreamPropertyAvailablePhysicalFormats =
    CXFourCharCode("pfta"); ///< …RangedDescription array

// Values of 'clas' and 'bcls'
inline constexpr uint32_t kAudioObjectClassID = CXFourCharCode("aobj");
inline constexpr uint32_t kAudioSystemObjectClassID = CXFourCharCode("asys");
inline constexpr uint32_t kAudioDeviceClassID = CXFourCharCode("adev");
inline constexpr uint32_t kAudioAggregateDeviceClassID = CXFourCharCode("aagg");
inline constexpr uint32_t kAudioStreamClassID = CXFourCharCode("astr");

// Values of 'tran'
inline constexpr uint32_t kAudioDeviceTransportTypeUnknown = 0;
inline constexpr uint32_t kAudioDeviceTransportTypeBuiltIn = CXFourCharCode("bltn");
inline constexpr uint32_t kAudioDeviceTransportTypeAggregate = CXFourCharCode("grup");
inline constexpr uint32_t kAudioDeviceTransportTypeVirtual = CXFourCharCode("virt");
inline constexpr uint32_t kAudioDeviceTransportTypePCI = CXFourCharCode("pci ");
inline constexpr uint32_t kAudioDeviceTransportTypeUSB = CXFourCharCode("usb ");
inline constexpr uint32_t kAudioDeviceTransportTypeFireWire = CXFourCharCode("1394");
inline constexpr uint32_t kAudioDeviceTransportTypeBluetooth = CXFourCharCode("blue");
inline constexpr uint32_t kAudioDeviceTransportTypeHDMI = CXFourCharCode("hdmi");
inline constexpr uint32_t kAudioDeviceTransportTypeDisplayPort = CXFourCharCode("dprt");
inline constexpr uint32_t kAudioDeviceTransportTypeAirPlay = CXFourCharCode("airp");
inline constexpr uint32_t kAudioDeviceTransportTypeNetwork = CXFourCharCode("netw");

// ---- Records of properties

/// The argument of a translation property, passed in the output buffer: where the input is, and where to
/// store the output.
struct AudioValueTranslation {
    void* inputData;
    uint32_t inputDataSize; ///< bytes
    void* outputData;
    uint32_t outputDataSize; ///< bytes
};

/// Which streams of a direction an IO callback uses; the others are passed without data. 12 bytes, then 4 per
/// stream.
struct AudioHardwareIOProcStreamUsage {
    void* ioProc; ///< the AudioDeviceIOProcID
    uint32_t numberStreams;
    uint32_t streamIsOn[1]; ///< numberStreams entries, non-zero for on
};

/// How a sub-device's frames are transferred to and from an aggregate's cycles. Counts start when the
/// aggregate or the sub-device last started.
struct AudioAggregateSubDeviceStatus {
    AudioObjectID deviceID;      ///< 0 while it is absent
    uint32_t isClock;            ///< non-zero: its cycles are the aggregate's cycles
    uint32_t isRunning;          ///< non-zero: its frames are transferred
    uint32_t isCompensated;      ///< non-zero: it is resampled to follow the clock
    double partsPerMillion;      ///< how much faster its clock runs than the aggregate's
    double inputLevelFrames;     ///< frames buffered from its cycles to the aggregate's
    double outputLevelFrames;    ///< frames buffered from the aggregate's cycles to its own
    double inputDelayFrames;     ///< delay of its input, in its own frames
    double outputDelayFrames;    ///< delay of its output, in the aggregate's frames
    uint32_t resynchronisations; ///< how often the transfer skipped or repeated frames
    uint32_t reserved;           ///< 0
    uint64_t lostFrames;         ///< frames replaced by silence because no data was available
};

// ---- Callbacks

/// Called after the values at `addressCount` addresses of `objectID` have changed. The result is ignored.
using AudioObjectPropertyListenerProc = HALStatus (*)(AudioObjectID objectID, uint32_t addressCount,
                                                      const AudioObjectPropertyAddress* addresses,
                                                      void* clientData);
/// The same as a closure.
using AudioObjectPropertyListenerBlock =
    CXBlock<void(uint32_t addressCount, const AudioObjectPropertyAddress* addresses)>;

/// Called once per cycle of a device, on its IO thread: `now` is when the cycle began, `inputTime` when the
/// first input frame was captured, `outputTime` when the first output frame will be played. The output is
/// silent before the call. Lists and times of a direction that the device does not have are null. Must be
/// real-time safe and must not throw.
using AudioDeviceIOBlock =
    CXBlock<void(const AudioTimeStamp* now, const AudioBufferList* inputData, const AudioTimeStamp* inputTime,
                 AudioBufferList* outputData, const AudioTimeStamp* outputTime)>;
/// Identifies an IO callback of one device; null means none.
using AudioDeviceIOProcID = void*;
