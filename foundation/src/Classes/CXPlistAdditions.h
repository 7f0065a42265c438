#pragma once

#include "CXBlockRef.h"
#include "CXExport.h"
#include "CXPlist.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// What arrays and dictionaries of property lists are asked for again and again. A null value stands for none;
// a value that is no array or dictionary where one is expected counts as an empty one and is not changed.
// Threads:   any, each value as any object of the standard library.
// Real time: no.

/// The number that a value is: a boolean is 0 or 1, a string the number it begins with, anything else 0. What
/// a value holds is not asked for by type elsewhere, because a boolean then is no number and the asking
/// throws.
DXR_EXPORT double CXDoubleValue(const CXPlist& value);

// --- Arrays ---

/// What `transform` returns for each element, in order. Throws a CXException if it returns null for one.
DXR_EXPORT CXPlist vt_map(const CXPlist& array, CXBlockRef<CXPlist(const CXPlist&)> transform);
/// The same, less the elements that it returns null for.
DXR_EXPORT CXPlist vt_compact_map(const CXPlist& array, CXBlockRef<CXPlist(const CXPlist&)> transform);
/// The first element that `predicate` accepts, else null.
DXR_EXPORT CXPlist vt_match(const CXPlist& array, CXBlockRef<bool(const CXPlist&)> predicate);
/// The elements that `predicate` accepts, in order.
DXR_EXPORT CXPlist vt_select(const CXPlist& array, CXBlockRef<bool(const CXPlist&)> predicate);
/// Appends `object` unless it is null.
DXR_EXPORT void safeAddObject(CXPlist& array, const CXPlist& object);

// --- Dictionaries ---

/// The entries that `predicate`, given key and value, accepts.
DXR_EXPORT CXPlist vt_select(const CXPlist& dictionary,
                             CXBlockRef<bool(const std::string&, const CXPlist&)> predicate);
/// The value, or null.
DXR_EXPORT CXPlist safeObjectForKey(const CXPlist& dictionary, std::string_view key);
/// The value, or `defaultValue` when there is none.
DXR_EXPORT CXPlist safeObjectForKey(const CXPlist& dictionary, std::string_view key,
                                    const CXPlist& defaultValue);
DXR_EXPORT CXPlist vtObjectForKey(const CXPlist& dictionary, std::string_view key,
                                  const CXPlist& defaultValue);

enum class CXPlistKind { Dictionary, Array, String, Number };
/// The value if it is of that kind, else null.
DXR_EXPORT CXPlist vtObjectForKey(const CXPlist& dictionary, std::string_view key, CXPlistKind kind);

// Conversions. A boolean is 0 or 1; a string is what it begins with as a number, 0 when that is none; a
// fraction is cut towards zero and too large a real number becomes the nearest 32-bit one, while of a whole
// number the low 32 bits count; a boolean is true for any number but 0 and for strings that begin with Y, T
// or a number but 0. Arrays, dictionaries and nothing are 0 and false.
/// 0 when absent.
DXR_EXPORT int64_t safeIntegerForKey(const CXPlist& dictionary, std::string_view key);
/// 0.0 when absent.
DXR_EXPORT double safeDoubleForKey(const CXPlist& dictionary, std::string_view key);
/// False when absent.
DXR_EXPORT bool safeBoolForKey(const CXPlist& dictionary, std::string_view key);
DXR_EXPORT bool vtBoolForKey(const CXPlist& dictionary, std::string_view key, bool defaultValue);
DXR_EXPORT int32_t vtIntForKey(const CXPlist& dictionary, std::string_view key, int32_t defaultValue);
DXR_EXPORT float vtFloatForKey(const CXPlist& dictionary, std::string_view key, float defaultValue);

struct CXSize {
    double width;
    double height;
    friend bool operator==(const CXSize&, const CXSize&) = default;
};
/// A size is an array of two numbers, or a string such as "{640, 480}"; anything else that is present is 0 by
/// 0.
DXR_EXPORT CXSize vtSizeForKey(const CXPlist& dictionary, std::string_view key, CXSize defaultValue);

/// Sets an entry; does nothing without an object or a key.
DXR_EXPORT void vt_safeSetObject(CXPlist& dictionary, const CXPlist& object,
                                 const std::optional<std::string>& key);
/// Sets an entry to a boolean; does nothing without a key.
DXR_EXPORT void safeSetBool(CXPlist& dictionary, bool value, const std::optional<std::string>& key);

// --- Equality ---

/// Whether two property lists say the same. Entries under `ignoredKey`, where one is given, do not count,
/// however deep. Numbers are equal when they differ by less than 0.0005 as 32-bit floats, which lets a value
/// survive a trip through somebody else's text; a number equals a string that reads as it, but not the other
/// way round.
DXR_EXPORT bool vtIsEqual(const CXPlist& value, const CXPlist& other,
                          const std::optional<std::string>& ignoredKey = std::nullopt);
