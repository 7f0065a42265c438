#include "DXRDeviceReference.h"

#include "CXErrorAdditions.h"
#include "CXFourCharCode.h"
#include "CXJSON.h"
#include "CXPlistAdditions.h"
#include "CXValue.h"
#include "DXRDeviceDescription.h"
#include "DXRReadCheck.h"
#include "JRCoreGenericUID.h"
#include "QDL.h"
#include "Utf8.h"

#include <algorithm>
#include <functional>

namespace {

constexpr std::string_view privateAggregatePrefix = "DXR:";
constexpr std::array<const char*, 9> keys{"uid", "i", "t", "gid", "ic", "oc", "m", "md", "n"};

bool isNumber(const CXPlist& value) noexcept
{
    return value.is_number() || value.is_boolean();
}

/// Compares numbers by value, with a boolean as 0 or 1; anything else by content.
bool isEqualValue(const CXPlist& a, const CXPlist& b)
{
    if (!isNumber(a) || !isNumber(b))
        return a == b;
    const auto isWhole = [](const CXPlist& value) { return value.is_number_integer(); };
    if (!isWhole(a) || !isWhole(b))
        return CXDoubleValue(a) == CXDoubleValue(b);
    const auto isNegative = [](const CXPlist& value) {
        return !value.is_number_unsigned() && value.get<int64_t>() < 0;
    };
    return isNegative(a) == isNegative(b) && a.get<uint64_t>() == b.get<uint64_t>();
}

size_t hashOfValue(const CXPlist* value) noexcept
{
    if (!value)
        return 0;
    if (const auto* text = value->get_ptr<const std::string*>())
        return std::hash<std::string>()(*text);
    if (isNumber(*value))
        return std::hash<double>()(CXDoubleValue(*value));
    return value->size(); // structured: no device has such an attribute
}

/// Corrects references stored by earlier versions, in which the generic ID of an engine may still contain its
/// interface after an emptied serial number.
void mendGenericUID(CXPlist& attributes)
{
    const auto transport = attributes.find("t");
    const auto found = attributes.find("gid");
    if (transport == attributes.end() || *transport != "usb " || found == attributes.end() ||
        !found->is_string())
        return;
    auto& genericUID = found->get_ref<std::string&>();
    const size_t end = genericUID.rfind("::");
    if (genericUID.starts_with("AppleUSBAudioEngine:") && end != std::string::npos)
        genericUID.erase(end + 2);
}

/// `object` as a reference: `object` itself, or a reference made from the string it holds.
CXRef<const DXRDeviceReference> referenceIn(const CXObject* object)
{
    if (const auto* reference = dynamic_cast<const DXRDeviceReference*>(object))
        return CXRef<const DXRDeviceReference>(reference);
    const auto* value = dynamic_cast<const CXValue*>(object);
    if (!value || !value->plist().is_string())
        return nullptr;
    return DXRDeviceReference::initWithString(value->string());
}

void setUnlessMissing(CXPlist& attributes, const char* key, const std::optional<std::string>& text)
{
    if (text)
        attributes[key] = dxr::utf8Replaced(*text);
}

} // namespace

bool isDeviceReference(std::string_view text)
{
    return text.size() >= 2 && text.front() == '{' && text.back() == '}';
}

CXRef<DXRDeviceReference> DXRDeviceReference::initWithDeviceID(AudioObjectID deviceID,
                                                               std::optional<bool> input)
{
    return initWithDescription(DXRDeviceDescription::ofDevice(deviceID), input);
}

CXRef<DXRDeviceReference> DXRDeviceReference::initWithDescription(const DXRDeviceDescription& description,
                                                                  std::optional<bool> input)
{
    const std::optional<std::string>& uid = description.uid;
    if (!uid || uid->starts_with(privateAggregatePrefix) || (input && description.channelCount(*input) == 0))
        return nullptr;
    CXPlist attributes = {{"uid", dxr::utf8Replaced(*uid)}};
    if (input)
        attributes["i"] = *input;
    const uint32_t transport = description.transportType;
    const std::optional<std::string> genericUID = _genericUIDForTransport(transport, *uid);
    if (!genericUID)
        return _initWithAttributes(std::move(attributes));

    attributes["t"] = stringWithFourCharCode(transport);
    setUnlessMissing(attributes, "gid", genericUID);
    if (const uint32_t count = description.channelCount(true); count != 0)
        attributes["ic"] = count;
    if (const uint32_t count = description.channelCount(false); count != 0)
        attributes["oc"] = count;
    setUnlessMissing(attributes, "m", description.manufacturer);
    if (const std::optional<std::string>& model = description.model)
        setUnlessMissing(attributes, "md", _genericUIDForTransport(transport, *model).value_or(*model));
    setUnlessMissing(attributes, "n", description.name);
    return _initWithAttributes(std::move(attributes));
}

CXRef<DXRDeviceReference> DXRDeviceReference::initWithDeviceUID(const std::optional<std::string>& deviceUID,
                                                                std::optional<bool> input)
{
    if (!deviceUID || deviceUID->starts_with(privateAggregatePrefix))
        return nullptr;
    if (const AudioObjectID deviceID = QDLAudioDeviceIDFromUID(deviceUID)) {
        const DXRReadCheck reads;
        CXRef<DXRDeviceReference> described = initWithDeviceID(deviceID, std::nullopt);
        if (!reads.hasFailed()) // an incomplete description would equal no device
            return described;
    }
    CXPlist attributes = {{"uid", dxr::utf8Replaced(*deviceUID)}};
    if (input)
        attributes["i"] = *input;
    return _initWithAttributes(std::move(attributes));
}

CXRef<DXRDeviceReference> DXRDeviceReference::initWithString(std::string_view text)
{
    if (!isDeviceReference(text))
        return nullptr;
    std::optional<CXPlist> attributes = CXPlistWithJSON(text);
    if (!attributes)
        return nullptr;
    mendGenericUID(*attributes);
    return CXRef<DXRDeviceReference>::adopt(
        new DXRDeviceReference(std::string(text), std::move(*attributes)));
}

CXRef<DXRDeviceReference> DXRDeviceReference::deviceReferenceWithInput(std::optional<bool> input) const
{
    CXPlist attributes = _attrs;
    attributes.erase("i");
    if (input)
        attributes["i"] = *input;
    return _initWithAttributes(std::move(attributes));
}

CXRef<DXRDeviceReference> DXRDeviceReference::_initWithAttributes(CXPlist attributes)
{
    std::string text = CXJSONWithPlist(attributes);
    if (text.size() > CXJSONMaximumBytes)
        return nullptr;
    return CXRef<DXRDeviceReference>::adopt(new DXRDeviceReference(std::move(text), std::move(attributes)));
}

std::optional<std::string> DXRDeviceReference::_genericUIDForTransport(uint32_t transport,
                                                                       const std::string& deviceUID)
{
    return JRCoreTransportCouldBeGeneric(transport) ? JRCoreCreateGenericUID(transport, deviceUID)
                                                    : std::nullopt;
}

DXRDeviceReference::DXRDeviceReference(std::string storage, CXPlist attributes)
    : _storage(std::move(storage)), _attrs(std::move(attributes))
{
    static_assert(keys.size() == attributeCount);
    for (size_t i = 0; i < attributeCount; ++i)
        if (const auto found = _attrs.find(keys[i]); found != _attrs.end() && !found->is_null())
            _attributes[i] = &*found;
    static constexpr std::array exact{UID, Input};
    static constexpr std::array generic{Input,          Transport, GID,   InputChannels,
                                        OutputChannels, Maker,     Model, Name};
    _exactHash = _hashOf(exact);
    _genericHash = _hashOf(generic);
}

DXRDeviceReference::~DXRDeviceReference() = default;

char DXRDeviceReference::characterAtIndex(size_t index) const
{
    CX_ASSERT(index < _storage.size());
    return _storage[index];
}

void DXRDeviceReference::getCharacters(std::span<char> characters, size_t location) const
{
    CX_ASSERT(location <= _storage.size() && characters.size() <= _storage.size() - location);
    std::ranges::copy_n(_storage.begin() + static_cast<std::ptrdiff_t>(location),
                        static_cast<std::ptrdiff_t>(characters.size()), characters.begin());
}

std::optional<std::string> DXRDeviceReference::_stringAttribute(Attribute attribute) const
{
    const CXPlist* const value = _attributes[attribute];
    return value && value->is_string() ? std::optional(value->get_ref<const std::string&>()) : std::nullopt;
}

std::optional<bool> DXRDeviceReference::isInput() const
{
    const CXPlist* const value = _attributes[Input];
    return value && isNumber(*value) ? std::optional(CXDoubleValue(*value) != 0.0) : std::nullopt;
}

std::optional<uint32_t> DXRDeviceReference::channelCount(bool input) const
{
    if (!isGeneric())
        return std::nullopt;
    const CXPlist* const value = _attributes[input ? InputChannels : OutputChannels];
    const double count = value && isNumber(*value) ? CXDoubleValue(*value) : 0.0;
    return count >= 0.0 && count < 4294967296.0 ? static_cast<uint32_t>(count) : 0;
}

bool DXRDeviceReference::isEqual(const CXObject* other) const
{
    const CXRef<const DXRDeviceReference> reference = referenceIn(other);
    return reference && _isEqualTo(*reference);
}

bool DXRDeviceReference::isEqual(std::string_view text) const
{
    const CXRef<DXRDeviceReference> reference = initWithString(text);
    return reference && _isEqualTo(*reference);
}

bool DXRDeviceReference::isGenericallyEqual(const CXObject* other) const
{
    const CXRef<const DXRDeviceReference> reference = referenceIn(other);
    return reference && _isGenericallyEqualTo(*reference);
}

bool DXRDeviceReference::isGenericallyEqual(std::string_view text) const
{
    const CXRef<DXRDeviceReference> reference = initWithString(text);
    return reference && _isGenericallyEqualTo(*reference);
}

bool DXRDeviceReference::_isEqualTo(const DXRDeviceReference& other) const
{
    if (this == &other)
        return true;
    const auto isAlike = [&](Attribute attribute) {
        const CXPlist* const mine = _attributes[attribute];
        const CXPlist* const theirs = other._attributes[attribute];
        return mine && theirs ? isEqualValue(*mine, *theirs) : mine == theirs;
    };
    if (!_attributes[UID] || !isAlike(Input) || !isAlike(UID))
        return false;
    return !isGeneric() || !other.isGeneric() || _isGenericallyEqualTo(other);
}

bool DXRDeviceReference::_isGenericallyEqualTo(const DXRDeviceReference& other) const
{
    if (this == &other)
        return true;
    if (!_attributes[GID] || !_attributes[Transport])
        return false;
    for (size_t i = 0; i < attributeCount; ++i) {
        const CXPlist* const mine = _attributes[i];
        const CXPlist* const theirs = other._attributes[i];
        if (i != UID && (mine && theirs ? !isEqualValue(*mine, *theirs) : mine != theirs))
            return false;
    }
    return true;
}

size_t DXRDeviceReference::hash() const
{
    const size_t ofDevice = hashOfValue(isGeneric() ? _attributes[GID] : _attributes[UID]);
    const std::optional<bool> input = isInput();
    return ofDevice ^ (!input ? 0U : *input ? 1U : 2U);
}

size_t DXRDeviceReference::_hashOf(std::span<const Attribute> attributes) const noexcept
{
    size_t hash = 0;
    for (const Attribute each : attributes) // as in boost::hash_combine
        hash ^= hashOfValue(_attributes[each]) + 0x9E3779B97F4A7C15U + (hash << 6) + (hash >> 2);
    return hash;
}
