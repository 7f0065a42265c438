#pragma once

#include "CXExport.h"
#include "CXPlist.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

// String functions. Strings are UTF-8; bytes that are not part of a well-formed character are kept, and each
// counts as a character.
// Threads: any.
// Real time: no.

/// Returns a new random UUID in the standard form, upper case.
DXR_EXPORT std::string uuidString();
/// Decodes `data`. Returns nothing if it is not valid text in the encoding or the encoding is unknown.
/// `encoding` is a usual name such as "UTF-8", "ISO-8859-1" or "UTF-16".
DXR_EXPORT std::optional<std::string> stringWithData(std::span<const std::byte> data,
                                                     const std::string& encoding);
/// Decodes UTF-8.
DXR_EXPORT std::optional<std::string> stringWithUTF8Data(std::span<const std::byte> data);
/// Returns `text` without the characters of `set`.
DXR_EXPORT std::string stringByRemovingCharactersInSet(std::string_view text, std::string_view set);
/// Returns `text` without white space and newlines, including Unicode's, at both ends.
DXR_EXPORT std::string stringByTrimmingWhitespace(std::string_view text);
/// Returns `text` with straight double quotes replaced alternately by opening and closing quotes, beginning
/// with an opening one.
DXR_EXPORT std::string stringByReplacingQuotesWithSmartQuotes(std::string_view text);
/// Reads up to `count` numbers from `text` into `floats`, skipping letters and "*= ,:{}()[]" between them.
/// Returns how many were read before the end or another character was found. A number out of range is
/// infinite. If `count` is negative, returns it and writes nothing.
DXR_EXPORT int32_t scanFloatArray(std::string_view text, float* floats, int32_t count);
/// As scanFloatArray(), in double precision.
DXR_EXPORT int32_t CXScanDoubleArray(std::string_view text, double* numbers, int32_t count);
/// Returns true if `text` begins with one of `prefixes`, an array of strings.
DXR_EXPORT bool hasPrefixInArray(std::string_view text, const CXPlist& prefixes);
/// Replaces every occurrence of `target`, compared byte by byte. Does nothing if `target` is empty.
DXR_EXPORT void simpleReplace(std::string& text, std::string_view target, std::string_view replacement);
/// Replaces every key of `replacements`, a dictionary of strings, by its value. Replaces the longest key
/// first, so that a key contained in another key does not change it.
DXR_EXPORT void simpleReplaceKeysWithValuesFrom(std::string& text, const CXPlist& replacements);

/// Returns the number that `text` begins with, ignoring leading white space: 0 if there is none, infinity if
/// it is out of range.
DXR_EXPORT double CXLeadingNumber(std::string_view text);
