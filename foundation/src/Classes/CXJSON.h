#pragma once

#include "CXExport.h"
#include "CXPlist.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

// Converts property lists to and from JSON text, the only format in which they are stored or exported.
// Threads:   any.
// Real time: no.

/// The maximum length of a text to be parsed, in bytes. Devices, references and settings need a few hundred
/// bytes each. The limit bounds memory use, because a parsed value takes many times the length of its text.
inline constexpr size_t CXJSONMaximumBytes = 1U << 20;
/// The maximum nesting depth of arrays and dictionaries in a text to be parsed.
inline constexpr size_t CXJSONMaximumDepth = 512;

/// Parses `text`. Returns nothing if it is not completely valid JSON in UTF-8, exceeds the limits above, or
/// contains a number that a double cannot represent. If a dictionary contains a key twice, the last value is
/// used.
DXR_EXPORT std::optional<CXPlist> CXPlistWithJSON(std::string_view text);

/// Returns `plist` as compact JSON in UTF-8 with sorted keys. Replaces bytes that are not UTF-8 by U+FFFD,
/// and infinite numbers and NaN by null.
DXR_EXPORT std::string CXJSONWithPlist(const CXPlist& plist);

/// Returns true if `plist` is valid and nested at most CXJSONMaximumDepth deep, so that it can be written and
/// parsed again.
DXR_EXPORT bool CXPlistFitsJSON(const CXPlist& plist);
