#pragma once

#include "CXPlist.h"

#include <string>
#include <vector>

/// Reads the values of a device's archive, which may be anything that somebody stored: what is missing or of the wrong
/// kind is empty, 0 or the fallback.
/// Threads:   immutable; any, while the dictionary it was made for is there.
/// Real time: no.
class DXRDeviceArchive {
public:
    explicit DXRDeviceArchive(const CXPlist& dictionary) noexcept : _dictionary(dictionary) {}

    /// A number cut towards zero; 0 when it is none or does not fit.
    uint32_t count(const char* key) const;
    double number(const char* key, double fallback) const;
    std::string string(const char* key) const;
    // Lists: none unless every item is of the kind.
    std::vector<uint32_t> channels(const char* key, uint32_t channelCount) const; ///< from 1 to the count
    std::vector<double> positiveNumbers(const char* key) const;
    std::vector<std::string> strings(const char* key) const;

private:
    const CXPlist& _dictionary;
};
