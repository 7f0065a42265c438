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

/// Whether `text` has the look of a reference: at least two characters, from "{" to "}".
DXR_EXPORT bool isDeviceReference(std::string_view text);

/// Names one audio device, or one direction of it, in a form that outlives restarts and replugging: a text,
/// which clients store, and the attributes that the text is the JSON of. References are compared by
/// attributes. A device on a bus whose IDs say where it is plugged in also has a generic ID and is described
/// (channels, maker, model, name), so that it is known again in another place: isGenericallyEqual().
/// Threads:   immutable, any.
/// Real time: no. Comparing and hashing neither allocates nor waits, but is not bounded.
/// Fails:     with an empty reference: no such device, no such direction, text that is no reference.
class DXR_EXPORT DXRDeviceReference final : public CXObject {
public:
    /// To a present device; `input` chooses a direction, nothing means the device as a whole. Empty for a
    /// device without unique ID, for the library's own aggregates, when the device has no channels in the
    /// direction, and for attributes that would make a text too long to be read (CXJSON.h).
    static CXRef<DXRDeviceReference> initWithDeviceID(AudioObjectID deviceID, std::optional<bool> input);
    /// The same of a description that has been read.
    static CXRef<DXRDeviceReference> initWithDescription(const DXRDeviceDescription& description,
                                                         std::optional<bool> input);
    /// To the device of this unique ID, present or not. A present device is referred to as a whole,
    /// regardless of `input` says; an absent one is not described and is never generic.
    static CXRef<DXRDeviceReference> initWithDeviceUID(const std::optional<std::string>& deviceUID,
                                                       std::optional<bool> input);
    /// From a stored text, which is kept as it is. Empty when it is no JSON dictionary from its first
    /// character to its last, or beyond the limits of CXJSON.h. A null attribute counts as missing.
    static CXRef<DXRDeviceReference> initWithString(std::string_view text);
    /// The same device in this direction, or as a whole. Empty when its text would be too long.
    CXRef<DXRDeviceReference> deviceReferenceWithInput(std::optional<bool> input) const;

    /// The text: what to store.
    const std::string& string() const noexcept { return _storage; }
    size_t length() const noexcept { return _storage.size(); } ///< bytes
    /// One byte of the text; asserts that there is one.
    char characterAtIndex(size_t index) const;
    /// The bytes of the text from `location` on, as many as `characters` has room for; asserts that there
    /// are.
    void getCharacters(std::span<char> characters, size_t location) const;

    /// The unique ID of the device.
    std::optional<std::string> deviceUID() const { return _stringAttribute(UID); }
    /// The unique ID without what changes from place to place; nothing when it has no such form.
    std::optional<std::string> genericUID() const { return _stringAttribute(GID); }
    bool isGeneric() const noexcept { return _attributes[GID] != nullptr; }
    /// Channels of the described device in a direction, 0 without any; nothing unless the reference is
    /// generic.
    std::optional<uint32_t> channelCount(bool input) const;
    /// True for input, false for output, nothing for the device as a whole.
    std::optional<bool> isInput() const;

    /// The same device in the same direction. Where both references are generic their descriptions must be
    /// equal too. `other` may also be a CXValue that holds a reference's text.
    bool isEqual(const CXObject* other) const override;
    bool isEqual(std::string_view text) const;
    /// A device of the same model, described alike, in the same direction, wherever it is plugged in.
    bool isGenericallyEqual(const CXObject* other) const;
    bool isGenericallyEqual(std::string_view text) const;

    /// Of the generic ID, or else the unique one, and the direction. A generic reference may be equal to one
    /// that is not, and have another hash: look up by the two below.
    size_t hash() const override;
    /// The same for all references that isEqual() may find equal.
    size_t exactHash() const noexcept { return _exactHash; }
    /// The same for all references that isGenericallyEqual() may find equal.
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
