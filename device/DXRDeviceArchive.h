#pragma once

#include "CXPlist.h"

#include <optional>
#include <string>
#include <vector>

/// Reads the values of a device's archive, which may hold anything: what is missing, of the wrong kind, or
/// nothing that hardware could report is empty, 0, false or nothing.
/// Threads:   immutable; any, while the dictionary it was made for is there.
/// Real time: no.
class DXRDeviceArchive {
public:
    /// More channels than any device has. A larger count is an error, and would have clients allocate for it.
    static constexpr uint32_t maximumChannelCount = 4096;

    explicit DXRDeviceArchive(const CXPlist& dictionary) noexcept : _dictionary(dictionary) {}

    /// A number from 1 to the maximum, without its fraction; else 0.
    uint32_t channelCount(const char* key) const;
    /// Hz: a finite number above 0.
    std::optional<double> rate(const char* key) const;
    /// A number from 0 to 1.
    std::optional<double> scalar(const char* key) const;
    bool flag(const char* key) const;
    std::string string(const char* key) const;
    // Lists: empty unless every item is of the kind.
    std::vector<uint32_t> channels(const char* key, uint32_t channelCount) const; ///< from 1 to the count
    std::vector<double> rates(const char* key) const;
    std::vector<std::string> strings(const char* key) const;

private:
    const CXPlist& _dictionary;
};
