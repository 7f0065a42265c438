#include "QDL.h"

#include "CXValue.h"
#include "PropertyValue.h"

#include <algorithm>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <set>

namespace {

using Address = AudioObjectPropertyAddress;

constexpr const char* boomUID = "GDAudioDevice_UID"; // no destructor: threads use it while the process ends

constexpr Address global(uint32_t selector)
{
    return {selector, kAudioObjectPropertyScopeGlobal, kAudioObjectPropertyElementMain};
}

constexpr Address directed(uint32_t selector, bool input)
{
    return {selector, input ? kAudioObjectPropertyScopeInput : kAudioObjectPropertyScopeOutput,
            kAudioObjectPropertyElementMain};
}

/// The present size of the property's value in bytes; 0 if it cannot be read.
uint32_t sizeOf(AudioObjectID objectID, const Address& address)
{
    uint32_t size = 0;
    const HALStatus status = AudioObjectGetPropertyDataSize(objectID, &address, 0, nullptr, &size);
    return status == kAudioHardwareNoError ? size : 0;
}

/// The bytes of a property of variable size, aligned for any record; empty if they cannot be read. Retries if
/// a list grows between the query of its size and the read, because an empty device list would disconnect
/// every device for a moment.
std::vector<std::byte> bytesOf(AudioObjectID objectID, const Address& address)
{
    constexpr int tries = 8;
    for (int i = 0; i < tries; ++i) {
        uint32_t size = sizeOf(objectID, address);
        std::vector<std::byte> bytes(size);
        if (size == 0)
            return bytes;
        const HALStatus status =
            AudioObjectGetPropertyData(objectID, &address, 0, nullptr, &size, bytes.data());
        if (status == kAudioHardwareNoError) {
            bytes.resize(std::min<size_t>(size, bytes.size()));
            return bytes;
        }
        if (status != kAudioHardwareBadPropertySizeError)
            break;
    }
    return {};
}

std::vector<uint32_t> wordsOf(AudioObjectID objectID, const Address& address)
{
    const std::vector<std::byte> bytes = bytesOf(objectID, address);
    std::vector<uint32_t> words(bytes.size() / sizeof(uint32_t));
    if (!words.empty())
        std::memcpy(words.data(), bytes.data(), words.size() * sizeof(uint32_t));
    return words;
}

/// The string in an object returned by the HAL, whose reference is taken over; empty if the object is not a
/// string.
std::optional<std::string> adoptString(CXObject* object)
{
    const CXRef<CXValue> value = CXRefCast<CXValue>(CXRef<CXObject>::adopt(object));
    if (!value || !value->plist().is_string())
        return std::nullopt;
    return value->string();
}

std::optional<std::string> stringOf(AudioObjectID objectID, uint32_t selector)
{
    if (objectID == kAudioObjectUnknown)
        return std::nullopt;
    return adoptString(propertyValue<CXObject*>(objectID, global(selector)).value_or(nullptr));
}

/// Translates `input` into `output` by the HAL; returns false if it fails.
template <class Input, class Output>
bool translate(AudioObjectID objectID, const Address& address, Input input, Output& output)
{
    AudioValueTranslation translation{&input, sizeof input, &output, sizeof output};
    uint32_t size = sizeof translation;
    return AudioObjectGetPropertyData(objectID, &address, 0, nullptr, &size, &translation) ==
           kAudioHardwareNoError;
}

/// The buffer list of a direction, in `bytes`; null if it cannot be read. Entries beyond the end of the value
/// are not counted.
const AudioBufferList* bufferListIn(std::vector<std::byte>& bytes)
{
    constexpr size_t headerSize = offsetof(AudioBufferList, buffers);
    if (bytes.size() < headerSize)
        return nullptr;
    auto* list = reinterpret_cast<AudioBufferList*>(bytes.data());
    const size_t room = (bytes.size() - headerSize) / sizeof(AudioBuffer);
    list->numberBuffers = static_cast<uint32_t>(std::min<size_t>(list->numberBuffers, room));
    return list;
}

/// A stream-usage record for the callback, with all streams off: 12 bytes, and 4 for each stream.
class StreamUsageRecord {
public:
    StreamUsageRecord(AudioDeviceIOProcID procID, uint32_t streamCount)
        : _bytes(offsetof(AudioHardwareIOProcStreamUsage, streamIsOn) + streamCount * sizeof(uint32_t))
    {
        std::memcpy(at(offsetof(AudioHardwareIOProcStreamUsage, ioProc)), &procID, sizeof procID);
        std::memcpy(at(offsetof(AudioHardwareIOProcStreamUsage, numberStreams)), &streamCount,
                    sizeof streamCount);
    }

    uint32_t size() const { return static_cast<uint32_t>(_bytes.size()); }
    std::byte* data() { return _bytes.data(); }
    bool isOn(uint32_t stream)
    {
        uint32_t word = 0;
        std::memcpy(&word, wordOf(stream), sizeof word);
        return word != 0;
    }
    void switchOn(uint32_t stream)
    {
        const uint32_t word = 1;
        std::memcpy(wordOf(stream), &word, sizeof word);
    }

private:
    std::byte* at(size_t offset) { return _bytes.data() + offset; }
    std::byte* wordOf(uint32_t stream)
    {
        return at(offsetof(AudioHardwareIOProcStreamUsage, streamIsOn) + stream * sizeof(uint32_t));
    }

    std::vector<std::byte> _bytes;
};

} // namespace

AudioObjectID QDLAudioDeviceDefaultInputDeviceID()
{
    return propertyValue<AudioObjectID>(kAudioObjectSystemObject,
                                        global(kAudioHardwarePropertyDefaultInputDevice))
        .value_or(0);
}

AudioObjectID QDLAudioDeviceDefaultOutputDeviceID()
{
    return propertyValue<AudioObjectID>(kAudioObjectSystemObject,
                                        global(kAudioHardwarePropertyDefaultOutputDevice))
        .value_or(0);
}

AudioObjectID QDLAudioDeviceDefaultSystemOutputDeviceID()
{
    return propertyValue<AudioObjectID>(kAudioObjectSystemObject,
                                        global(kAudioHardwarePropertyDefaultSystemOutputDevice))
        .value_or(0);
}

std::optional<std::string> QDLAudioDeviceDefaultInputDeviceUID()
{
    return QDLAudioDeviceUIDFromDeviceID(QDLAudioDeviceDefaultInputDeviceID());
}

std::optional<std::string> QDLAudioDeviceDefaultOutputDeviceUID()
{
    return QDLAudioDeviceUIDFromDeviceID(QDLAudioDeviceDefaultOutputDeviceID());
}

std::optional<std::string> QDLAudioDeviceDefaultSystemOutputDeviceUID()
{
    return QDLAudioDeviceUIDFromDeviceID(QDLAudioDeviceDefaultSystemOutputDeviceID());
}

std::optional<std::string> QDLAudioDeviceUIDFromDeviceID(AudioObjectID deviceID)
{
    return stringOf(deviceID, kAudioDevicePropertyDeviceUID);
}

AudioObjectID QDLAudioDeviceIDFromUID(const std::optional<std::string>& uid)
{
    if (!uid)
        return kAudioObjectUnknown;
    const CXRef<CXValue> value = CXValue::initWithPlist(*uid);
    AudioObjectID deviceID = kAudioObjectUnknown;
    const bool found = translate(kAudioObjectSystemObject, global(kAudioHardwarePropertyDeviceForUID),
                                 static_cast<CXObject*>(value.get()), deviceID);
    return found ? deviceID : kAudioObjectUnknown;
}

AudioObjectID QDLAudioDeviceBoomAudioID()
{
    return QDLAudioDeviceIDFromUID(boomUID);
}

std::optional<std::string> QDLAudioDeviceNameFromDeviceID(AudioObjectID deviceID)
{
    return stringOf(deviceID, kAudioObjectPropertyName);
}

std::optional<std::string> QDLAudioDeviceManufacturerFromDeviceID(AudioObjectID deviceID)
{
    return stringOf(deviceID, kAudioObjectPropertyManufacturer);
}

std::optional<std::string> QDLAudioDeviceModelUIDFromDeviceID(AudioObjectID deviceID)
{
    return stringOf(deviceID, kAudioDevicePropertyModelUID);
}

uint32_t QDLAudioDeviceTransportTypeFromDeviceID(AudioObjectID deviceID)
{
    return propertyValue<uint32_t>(deviceID, global(kAudioDevicePropertyTransportType)).value_or(0);
}

bool QDLAudioDeviceIsHidden(AudioObjectID deviceID)
{
    return propertyValue<uint32_t>(deviceID, global(kAudioDevicePropertyIsHidden)).value_or(1) != 0;
}

uint32_t QDLAudioDeviceChannelCount(AudioObjectID deviceID, bool input)
{
    std::vector<std::byte> bytes =
        bytesOf(deviceID, directed(kAudioDevicePropertyStreamConfiguration, input));
    const AudioBufferList* list = bufferListIn(bytes);
    uint32_t channels = 0;
    for (uint32_t i = 0; list && i < list->numberBuffers; ++i)
        channels += list->buffers[i].numberChannels;
    return channels;
}

bool QDLAudioDeviceHasBuffers(AudioObjectID deviceID, bool input)
{
    std::vector<std::byte> bytes =
        bytesOf(deviceID, directed(kAudioDevicePropertyStreamConfiguration, input));
    const AudioBufferList* list = bufferListIn(bytes);
    return list && list->numberBuffers > 0;
}

uint32_t QDLAudioDeviceStreamCount(AudioObjectID deviceID, bool input)
{
    const uint32_t size = sizeOf(deviceID, directed(kAudioDevicePropertyStreams, input));
    return size / static_cast<uint32_t>(sizeof(AudioObjectID));
}

double QDLAudioDeviceSampleRate(AudioObjectID deviceID, bool input)
{
    return propertyValue<double>(deviceID, directed(kAudioDevicePropertyNominalSampleRate, input))
        .value_or(0.0);
}

double QDLAudioDeviceMaximumSampleRate(bool input)
{
    double maximum = 0.0;
    for (const AudioObjectID deviceID :
         wordsOf(kAudioObjectSystemObject, global(kAudioHardwarePropertyDevices)))
        if (deviceID != kAudioObjectUnknown && QDLAudioDeviceHasBuffers(deviceID, input))
            maximum = std::max(maximum, QDLAudioDeviceSampleRate(deviceID, input));
    return maximum;
}

bool QDLAudioDeviceSampleRateIsValid(double sampleRate)
{
    return sampleRate >= 1000.0 && sampleRate <= 1000000.0;
}

AudioObjectID* QDLAudioDeviceIDList(uint32_t* count)
{
    if (count)
        *count = 0;
    const std::vector<uint32_t> listed =
        wordsOf(kAudioObjectSystemObject, global(kAudioHardwarePropertyDevices));
    std::set<AudioObjectID> devices(listed.begin(), listed.end());
    if (const AudioObjectID boom = QDLAudioDeviceBoomAudioID(); boom != kAudioObjectUnknown) {
        if (QDLAudioDeviceIsHidden(boom))
            devices.erase(boom);
        else
            devices.insert(boom);
    }
    // Allocate one more than needed, because malloc(0) may return null, which would look like a failure.
    auto* list = static_cast<AudioObjectID*>(std::malloc((devices.size() + 1) * sizeof(AudioObjectID)));
    if (!list)
        return nullptr;
    std::copy(devices.begin(), devices.end(), list);
    if (count)
        *count = static_cast<uint32_t>(devices.size());
    return list;
}

std::vector<bool> QDLAudioDeviceGetStreamUsage(AudioObjectID deviceID, AudioDeviceIOProcID procID, bool input)
{
    std::vector<bool> usage;
    if (deviceID == kAudioObjectUnknown || !procID)
        return usage;
    const uint32_t streamCount = QDLAudioDeviceStreamCount(deviceID, input);
    StreamUsageRecord record(procID, streamCount);
    const Address address = directed(kAudioDevicePropertyIOProcStreamUsage, input);
    uint32_t size = record.size();
    if (AudioObjectGetPropertyData(deviceID, &address, 0, nullptr, &size, record.data()) !=
        kAudioHardwareNoError)
        return usage;
    for (uint32_t stream = 0; stream < streamCount; ++stream)
        usage.push_back(record.isOn(stream));
    return usage;
}

void QDLAudioDeviceSetStreamUsage(AudioObjectID deviceID, AudioDeviceIOProcID procID, bool input,
                                  const std::optional<std::vector<bool>>& usage)
{
    if (deviceID == kAudioObjectUnknown || !procID)
        return;
    const uint32_t streamCount = QDLAudioDeviceStreamCount(deviceID, input);
    StreamUsageRecord record(procID, streamCount);
    for (uint32_t stream = 0; usage && stream < std::min<size_t>(streamCount, usage->size()); ++stream)
        if ((*usage)[stream])
            record.switchOn(stream);
    const Address address = directed(kAudioDevicePropertyIOProcStreamUsage, input);
    AudioObjectSetPropertyData(deviceID, &address, 0, nullptr, record.size(), record.data());
}

uint32_t* QDLDataSourceIDsFromDeviceID(AudioObjectID deviceID, bool input, uint32_t* count)
{
    if (count)
        *count = 0;
    const Address address = directed(kAudioDevicePropertyDataSources, input);
    const uint32_t size = deviceID == kAudioObjectUnknown ? 0 : sizeOf(deviceID, address);
    if (size == 0)
        return nullptr;
    auto* sources = static_cast<uint32_t*>(std::calloc(1, size));
    if (!sources)
        return nullptr;
    // Keep the announced number of sources even if they cannot be read; there are fewer if some have just
    // disappeared.
    uint32_t filled = size;
    if (AudioObjectGetPropertyData(deviceID, &address, 0, nullptr, &filled, sources) != kAudioHardwareNoError)
        filled = size;
    if (count)
        *count = std::min(size, filled) / static_cast<uint32_t>(sizeof(uint32_t));
    return sources;
}

uint32_t QDLCurrentDataSourceForDeviceID(AudioObjectID deviceID, bool input)
{
    return propertyValue<uint32_t>(deviceID, directed(kAudioDevicePropertyDataSource, input)).value_or(0);
}

std::string QDLSourceNameFromDataSource(AudioObjectID deviceID, uint32_t sourceID, bool input)
{
    if (deviceID == kAudioObjectUnknown || sourceID == 0)
        return {};
    CXObject* name = nullptr;
    if (!translate(deviceID, directed(kAudioDevicePropertyDataSourceNameForIDCFString, input), sourceID,
                   name))
        return {};
    return adoptString(name).value_or("");
}

std::string QDLCurrentSourceNameFromDeviceID(AudioObjectID deviceID, bool input)
{
    return QDLSourceNameFromDataSource(deviceID, QDLCurrentDataSourceForDeviceID(deviceID, input), input);
}

uint32_t QDLDataSourceIDFromSourceName(AudioObjectID deviceID, bool input,
                                       const std::optional<std::string>& name)
{
    if (deviceID == kAudioObjectUnknown || !name)
        return 0;
    for (const uint32_t sourceID : wordsOf(deviceID, directed(kAudioDevicePropertyDataSources, input)))
        if (QDLSourceNameFromDataSource(deviceID, sourceID, input) == *name)
            return sourceID;
    return 0;
}
