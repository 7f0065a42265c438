#pragma once

#include "AudioHardware.h"
#include "CXPlist.h"
#include "CXRef.h"

#include <array>
#include <optional>
#include <span>
#include <string>
#include <string_view>

struct DXRDeviceDescription;

/// Whether `text` looks like a reference: at least two characters, beginning with "{" and ending with "}".
DXR_EXPORT bool isDeviceReference(std::string_view text);

/// Identifies an audio device, or one direction of it, permanently: across restarts and replugging. It
/// consists of a text, which clients store, and of attributes, whose JSON form is the text. References are
/// compared by attributes. If the IDs on a device's bus depend on where it is plugged in, the reference also
/// has a generic ID and a description (channels, maker, model, name), by which the device is recognised in
/// another place: isGenericallyEqual().
/// Threads:   immutable; any.
/// Real time: no. Comparing and hashing neither allocate nor wait, but their time is not bounded.
/// Fails:     returns a null reference: no such device, no such direction, or invalid text.
class DXR_EXPORT DXRDeviceReference final : public CXObject {
public:
    /// A reference to a present device; `input` chooses a direction, empty means the device as a whole.
    /// Returns null if the device has no unique ID, is one of the library's own aggregates or has no channels
    /// in the direction, or if the text would be too long to be read back (CXJSON.h).
    static CXRef<DXRDeviceReference> initWithDeviceID(AudioObjectID deviceID, std::optional<bool> input);
    /// As above, from a description that has already been read.
    static CXRef<DXRDeviceReference> initWithDescription(const DXRDeviceDescription& description,
                                                         std::optional<bool> input);
    /// A reference to the device with this unique ID, present or not. For a present device it is a reference
    /// to the device as a whole, regardless of `input`; for a device that is absent, or cannot be read, it
    /// has no description and is never generic.
    static CXRef<DXRDeviceReference> initWithDeviceUID(const std::optional<std::string>& deviceUID,
                                                       std::optional<bool> input);
    /// A reference from a stored text, which is kept unchanged. Returns null if the text is not exactly one
    /// JSON dictionary, or exceeds the limits in CXJSON.h. A null attribute counts as missing.
    static CXRef<DXRDeviceReference> initWithString(std::string_view text);
    /// A reference to the same device in this direction, or as a whole. Returns null if its text would be too
    /// long.
    CXRef<DXRDeviceReference> deviceReferenceWithInput(std::optional<bool> input) const;

    /// The text to store.
    const std::string& string() const noexcept { return _storage; }
    size_t length() const noexcept { return _storage.size(); } ///< bytes
    /// One byte of the text; asserts that `index` is valid.
    char characterAtIndex(size_t index) const;
    /// Copies bytes of the text from `location` on, as many as fit in `characters`; asserts that the text has
    /// so many.
    void getCharacters(std::span<char> characters, size_t location) const;

    /// The device's unique ID.
    std::optional<std::string> deviceUID() const { return _stringAttribute(UID); }
    /// The unique ID without the parts that depend on the port; empty if the device has no generic ID.
    std::optional<std::string> genericUID() const { return _stringAttribute(GID); }
    bool isGeneric() const noexcept { return _attributes[GID] != nullptr; }
    /// The channel count of the described device in a direction, 0 if it has none there; empty unless the
    /// reference is generic.
    std::optional<uint32_t> channelCount(bool input) const;
    /// True for input, false for output, empty for the device as a whole.
    std::optional<bool> isInput() const;

    /// Whether `other` is the same device in the same direction. If both references are generic, their
    /// descriptions must also be equal. `other` may also be a CXValue that holds a reference's text.
    bool isEqual(const CXObject* other) const override;
    bool isEqual(std::string_view text) const;
    /// Whether `other` is a device of the same model with the same description, in the same direction, in any
    /// place.
    bool isGenericallyEqual(const CXObject* other) const;
    bool isGenericallyEqual(std::string_view text) const;

    /// A hash of the generic ID, otherwise the unique ID, and the direction. A generic reference may equal
    /// one that is not generic and yet have another hash: for look-ups use the two functions below.
    size_t hash() const override;
    /// Equal for all references that isEqual() may find equal.
    size_t exactHash() const noexcept { return _exactHash; }
    /// Equal for all references that isGenericallyEqual() may find equal.
    size_t genericHash() const noexcept { return _genericHash; }
    /// The text.
    std::string description() const override { return _storage; }

private:
    enum Attribute { UID, Input, Transport, GID, InputChannels, OutputChannels, Maker, Model, Name };
    static constexpr size_t attributeCount = Name + 1;

    static CXRef<DXRDeviceReference> _initWithAttributes(CXPlist attributes);
    static std::optional<std::string> _genericUIDForTransport(uint32_t transport,
                                                              const std::string& deviceUID);
    DXRDeviceReference(std::string storage, CXPlist attributes);
    ~DXRDeviceReference() override;

    std::optional<std::string> _stringAttribute(Attribute attribute) const;
    bool _isEqualTo(const DXRDeviceReference& other) const;
    bool _isGenericallyEqualTo(const DXRDeviceReference& other) const;
    size_t _hashOf(std::span<const Attribute> attributes) const noexcept;

    const std::string _storage;
    const CXPlist _attrs;
    std::array<const CXPlist*, attributeCount> _attributes{}; // in _attrs; null for a missing one
    size_t _exactHash = 0;
    size_t _genericHash = 0;
};
