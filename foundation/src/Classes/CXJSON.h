#pragma once

#include "CXExport.h"
#include "CXPlist.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

// Property lists as JSON text, one form for everything that is stored or handed out.
// Threads:   any.
// Real time: no.

/// The longest text that is read, in bytes. Devices, references and settings take a few hundred each; what is
/// longer is no such thing, and would cost many times its length in memory.
inline constexpr size_t CXJSONMaximumBytes = 1U << 20;
/// How deep arrays and dictionaries may be nested, in what is read.
inline constexpr size_t CXJSONMaximumDepth = 512;

/// The value that `text` stands for. Nothing when it is not JSON in UTF-8 from its first byte to its last, is
/// longer or deeper than the limits above, or holds a number that no double can. Of equal keys in a
/// dictionary the last counts.
DXR_EXPORT std::optional<CXPlist> CXPlistWithJSON(std::string_view text);

/// `plist` as compact JSON in UTF-8 with sorted keys. Bytes that are not UTF-8 are replaced by U+FFFD,
/// numbers that JSON does not know (infinite, not a number) by null.
DXR_EXPORT std::string CXJSONWithPlist(const CXPlist& plist);

/// Whether `plist` is nested at most CXJSONMaximumDepth deep and whole, so that it can be written and read
/// again.
DXR_EXPORT bool CXPlistFitsJSON(const CXPlist& plist);
