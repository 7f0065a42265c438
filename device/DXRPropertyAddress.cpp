#include "DXRPropertyAddress.h"

#include "CXValue.h"
#include "DXRPropertyListener.h"
#include "PropertyValue.h"

#include <algorithm>
#include <cstring>

namespace {

/// Stores the value if it can be read and `value` is not null.
template <class Value>
bool readValue(const AudioObjectPropertyAddress& address, AudioObjectID objectID, Value* value)
{
    const std::optional<Value> read = propertyValue<Value>(objectID, address);
    if (read && value)
        *value = *read;
    return read.has_value();
}

/// Splits `data` into Items and converts each with `make`.
template <class Item, class Make>
auto itemsOf(const std::optional<std::vector<std::byte>>& data, const Make& make)
{
    std::vector<decltype(make(std::declval<Item>()))> items;
    const size_t count = data ? data->size() / sizeof(Item) : 0;
    items.reserve(count);
    for (size_t i = 0; i < count; ++i) {
        Item item;
        std::memcpy(&item, data->data() + i * sizeof item, sizeof item);
        items.push_back(make(item));
    }
    return items;
}

} // namespace

CXRef<DXRPropertyAddress> DXRPropertyAddress::initWithAddress(const AudioObjectPropertyAddress* address)
{
    return Ref::adopt(new DXRPropertyAddress(address ? *address : AudioObjectPropertyAddress{}));
}

CXRef<DXRPropertyAddress> DXRPropertyAddress::initWithSelector(uint32_t selector, uint32_t scope,
                                                               uint32_t element)
{
    return Ref::adopt(new DXRPropertyAddress({selector, scope, element}));
}

DXRPropertyAddress::~DXRPropertyAddress() = default;

std::string DXRPropertyAddress::description() const
{
    return stringWithFourCharCode(selector()) + ":" + stringWithFourCharCode(scope()) + ":" +
           std::to_string(element());
}

bool DXRPropertyAddress::isEqual(const CXObject* other) const
{
    if (this == other)
        return true;
    if (const auto* address = dynamic_cast<const DXRPropertyAddress*>(other))
        return _address == address->_address;
    const auto* text = dynamic_cast<const CXValue*>(other);
    return text && text->plist().is_string() && text->string() == description();
}

size_t DXRPropertyAddress::hash() const
{
    return selector() ^ scope() ^ element();
}

CXRef<DXRPropertyListener> DXRPropertyAddress::listenerWithObjectID(AudioObjectID objectID,
                                                                    const CXRef<dxr::WorkQueue>& /*queue*/,
                                                                    const CXRef<CXObject>& target,
                                                                    const ListenerBlock& block) const
{
    const auto forward = [weakTarget = CXWeak(target), block](const CXRef<CXObject>& self,
                                                              const AudioObjectPropertyAddress* /*changed*/) {
        if (const CXRef<CXObject> alive = weakTarget.lock(); alive && block)
            block(alive, Ref(static_cast<DXRPropertyAddress*>(self.get())));
    };
    return DXRPropertyListener::initWithObjectID(objectID, &_address, nullptr, copy(), forward);
}

bool DXRPropertyAddress::getSize(uint32_t* size, AudioObjectID objectID) const
{
    uint32_t read = 0;
    if (objectID == kAudioObjectUnknown ||
        AudioObjectGetPropertyDataSize(objectID, &_address, 0, nullptr, &read) != kAudioHardwareNoError)
        return false;
    if (size)
        *size = read;
    return true;
}

bool DXRPropertyAddress::getUInt32(uint32_t* value, AudioObjectID objectID) const
{
    return readValue(_address, objectID, value);
}

bool DXRPropertyAddress::getFloat(float* value, AudioObjectID objectID) const
{
    return readValue(_address, objectID, value);
}

bool DXRPropertyAddress::getDouble(double* value, AudioObjectID objectID) const
{
    return readValue(_address, objectID, value);
}

std::optional<uint32_t> DXRPropertyAddress::uint32ForObjectID(AudioObjectID objectID) const
{
    return propertyValue<uint32_t>(objectID, _address);
}

std::optional<float> DXRPropertyAddress::floatForObjectID(AudioObjectID objectID) const
{
    return propertyValue<float>(objectID, _address);
}

std::optional<double> DXRPropertyAddress::doubleForObjectID(AudioObjectID objectID) const
{
    return propertyValue<double>(objectID, _address);
}

CXRef<CXObject> DXRPropertyAddress::objectForObjectID(AudioObjectID objectID) const
{
    return CXRef<CXObject>::adopt(propertyValue<CXObject*>(objectID, _address).value_or(nullptr));
}

CXRef<CXObject> DXRPropertyAddress::objectForObjectID(AudioObjectID objectID, const void* data,
                                                      uint32_t size) const
{
    if (objectID == kAudioObjectUnknown)
        return nullptr;
    CXObject* object = nullptr;
    AudioValueTranslation translation{const_cast<void*>(data), size, &object, sizeof object};
    uint32_t translationSize = sizeof translation;
    const HALStatus status =
        AudioObjectGetPropertyData(objectID, &_address, 0, nullptr, &translationSize, &translation);
    return status == kAudioHardwareNoError ? CXRef<CXObject>::adopt(object) : nullptr;
}

std::optional<std::vector<std::byte>> DXRPropertyAddress::dataForObjectID(AudioObjectID objectID) const
{
    constexpr int tries = 3;
    for (int i = 0; i < tries; ++i) {
        uint32_t size = 0;
        if (!getSize(&size, objectID))
            return std::nullopt;
        std::vector<std::byte> data(size);
        if (size == 0)
            return data;
        const HALStatus status =
            AudioObjectGetPropertyData(objectID, &_address, 0, nullptr, &size, data.data());
        if (status == kAudioHardwareNoError) {
            data.resize(std::min<size_t>(size, data.size()));
            return data;
        }
        if (status != kAudioHardwareBadPropertySizeError)
            return std::nullopt;
    }
    return std::nullopt;
}

std::vector<uint32_t> DXRPropertyAddress::uint32ArrayForObjectID(AudioObjectID objectID) const
{
    return itemsOf<uint32_t>(dataForObjectID(objectID), [](uint32_t item) { return item; });
}

CXRef<DXRValueRange> DXRPropertyAddress::valueRangeForObjectID(AudioObjectID objectID) const
{
    const auto range = propertyValue<AudioValueRange>(objectID, _address);
    return range ? DXRValueRange::initWithRange(&*range) : nullptr;
}

std::vector<CXRef<DXRValueRange>> DXRPropertyAddress::valueRangeArrayForObjectID(AudioObjectID objectID) const
{
    return itemsOf<AudioValueRange>(dataForObjectID(objectID),
                                    [](const auto& item) { return DXRValueRange::initWithRange(&item); });
}

CXRef<DXRBasicStream> DXRPropertyAddress::basicStreamForObjectID(AudioObjectID objectID) const
{
    const auto format = propertyValue<AudioStreamBasicDescription>(objectID, _address);
    return format ? DXRBasicStream::initWithDesc(&*format) : nullptr;
}

std::vector<CXRef<DXRBasicStream>>
DXRPropertyAddress::basicStreamArrayForObjectID(AudioObjectID objectID) const
{
    return itemsOf<AudioStreamBasicDescription>(
        dataForObjectID(objectID), [](const auto& item) { return DXRBasicStream::initWithDesc(&item); });
}

CXRef<DXRRangedStream> DXRPropertyAddress::rangedStreamForObjectID(AudioObjectID objectID) const
{
    const auto format = propertyValue<AudioStreamRangedDescription>(objectID, _address);
    return format ? DXRRangedStream::initWithDesc(&*format) : nullptr;
}

std::vector<CXRef<DXRRangedStream>>
DXRPropertyAddress::rangedStreamArrayForObjectID(AudioObjectID objectID) const
{
    return itemsOf<AudioStreamRangedDescription>(
        dataForObjectID(objectID), [](const auto& item) { return DXRRangedStream::initWithDesc(&item); });
}

bool DXRPropertyAddress::setUInt32(uint32_t value, AudioObjectID objectID) const
{
    return setPropertyValue(objectID, _address, value);
}

bool DXRPropertyAddress::setFloat(float value, AudioObjectID objectID) const
{
    return setPropertyValue(objectID, _address, value);
}

bool DXRPropertyAddress::setDouble(double value, AudioObjectID objectID) const
{
    return setPropertyValue(objectID, _address, value);
}
