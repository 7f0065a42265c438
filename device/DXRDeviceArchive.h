#pragma once

#include "CXPlist.h"

#include <cstddef>
#include <optional>
#include <span>
#include <string>
#include <vector>

/// Reads values from a device's archive, whose content is not trusted: a value that is missing, of the wrong
/// type or impossible for hardware is read as empty, 0 or false.
/// Threads:   immutable; any, while the dictionary passed to the constructor exists.
/// Real time: no.
class DXRDeviceArchive {
public:
    /// The value of "vn"; dictionaries of other versions are not read.
    static constexpr uint32_t version = 1;
    /// The limit of valid channel counts: no device has more, and clients allocate memory in proportion.
    static constexpr uint32_t maximumChannelCount = 4096;

    /// The archive that clients store: "DXRDevice:" and the dictionary as JSON.
    static std::vector<std::byte> bytesOf(const CXPlist& dictionary);
    /// The dictionary in such bytes; empty if they are invalid or of another version.
    static std::optional<CXPlist> dictionaryIn(std::span<const std::byte> bytes);

    explicit DXRDeviceArchive(const CXPlist& dictionary) noexcept : _dictionary(dictionary) {}

    /// A number from 1 to the maximum, rounded down; otherwise 0.
    uint32_t channelCount(const char* key) const;
    /// Hz: a finite number above 0.
    std::optional<double> rate(const char* key) const;
    /// A number from 0 to 1.
    std::optional<double> scalar(const char* key) const;
    bool flag(const char* key) const;
    std::string string(const char* key) const;
    // Lists are empty unless every item is valid.
    std::vector<uint32_t> channels(const char* key, uint32_t channelCount) const; ///< from 1 to the count
    std::vector<double> rates(const char* key) const;
    std::vector<std::string> strings(const char* key) const;

private:
    const CXPlist& _dictionary;
};
