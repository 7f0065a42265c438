#pragma once

#include "CXExport.h"
#include "CXPlist.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

// What strings are asked for again and again. Strings are UTF-8; bytes that are not are passed on as they
// are, each for a character of its own.
// Threads: any.
// Real time: no.

/// A new random UUID, in its standard upper-case form.
DXR_EXPORT std::string uuidString();
/// `data` decoded; nothing when it is not text in that encoding, or the encoding, by its usual name ("UTF-8",
/// "ISO-8859-1", "UTF-16"), is not known here.
DXR_EXPORT std::optional<std::string> stringWithData(std::span<const std::byte> data,
                                                     const std::string& encoding);
/// The same with UTF-8.
DXR_EXPORT std::optional<std::string> stringWithUTF8Data(std::span<const std::byte> data);
/// `text` without the characters of `set`.
DXR_EXPORT std::string stringByRemovingCharactersInSet(std::string_view text, std::string_view set);
/// `text` without white space and newlines, Unicode's included, at both ends.
DXR_EXPORT std::string stringByTrimmingWhitespace(std::string_view text);
/// `text` with its straight double quotes turned into opening and closing ones, in turn; the last of an odd
/// number opens.
DXR_EXPORT std::string stringByReplacingQuotesWithSmartQuotes(std::string_view text);
/// Reads up to `count` numbers of `text` into `floats`, skipping letters and "*= ,:{}()[]" between them, and
/// returns how many were read before something else, or the end, was met. Too large a number is infinite. A
/// negative count is returned as it is, and nothing is written.
DXR_EXPORT int32_t scanFloatArray(std::string_view text, float* floats, int32_t count);
/// Whether `text` begins with one of `prefixes`, an array of strings.
DXR_EXPORT bool hasPrefixInArray(std::string_view text, const CXPlist& prefixes);
/// Replaces every occurrence of `target`, letter by letter. An empty one occurs nowhere.
DXR_EXPORT void simpleReplace(std::string& text, std::string_view target, std::string_view replacement);
/// Replaces every key of `replacements`, a dictionary of strings, by its value, one key after the other, the
/// longest first, so that a key which contains another is not broken by it.
DXR_EXPORT void simpleReplaceKeysWithValuesFrom(std::string& text, const CXPlist& replacements);

/// The number that `text` begins with, after white space; 0 when there is none, infinite when it is too
/// large.
DXR_EXPORT double CXLeadingNumber(std::string_view text);
