#pragma once

#include "CXBlockRef.h"
#include "CXExport.h"
#include "CXPlist.h"

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

// Functions on property-list arrays and dictionaries. A null value means no value. A value that is not an
// array or dictionary where one is expected is treated as empty and not changed.
// Threads:   any; values are not synchronised, as objects of the standard library.
// Real time: no.

/// Converts a value to a number: a boolean is 0 or 1, a string is the number that it begins with, all other
/// values are 0. Use this instead of the JSON library's typed getters, which do not treat a boolean as a
/// number and throw.
DXR_EXPORT double CXDoubleValue(const CXPlist& value);

// --- Arrays ---

/// Returns the results of `transform` for all elements, in order. Throws a CXException if it returns null.
DXR_EXPORT CXPlist vt_map(const CXPlist& array, CXBlockRef<CXPlist(const CXPlist&)> transform);
/// Returns the results of `transform` for all elements, in order, without null results.
DXR_EXPORT CXPlist vt_compact_map(const CXPlist& array, CXBlockRef<CXPlist(const CXPlist&)> transform);
/// Returns the first element for which `predicate` returns true, or null.
DXR_EXPORT CXPlist vt_match(const CXPlist& array, CXBlockRef<bool(const CXPlist&)> predicate);
/// Returns the elements for which `predicate` returns true, in order.
DXR_EXPORT CXPlist vt_select(const CXPlist& array, CXBlockRef<bool(const CXPlist&)> predicate);
/// Appends `object` unless it is null.
DXR_EXPORT void safeAddObject(CXPlist& array, const CXPlist& object);

// --- Dictionaries ---

/// Returns the entries for which `predicate(key, value)` returns true.
DXR_EXPORT CXPlist vt_select(const CXPlist& dictionary,
                             CXBlockRef<bool(const std::string&, const CXPlist&)> predicate);
/// Returns the value, or null if there is none.
DXR_EXPORT CXPlist safeObjectForKey(const CXPlist& dictionary, std::string_view key);
/// Returns the value, or `defaultValue` if there is none.
DXR_EXPORT CXPlist safeObjectForKey(const CXPlist& dictionary, std::string_view key,
                                    const CXPlist& defaultValue);
DXR_EXPORT CXPlist vtObjectForKey(const CXPlist& dictionary, std::string_view key,
                                  const CXPlist& defaultValue);

enum class CXPlistKind { Dictionary, Array, String, Number };
/// Returns the value if it is of that kind, otherwise null.
DXR_EXPORT CXPlist vtObjectForKey(const CXPlist& dictionary, std::string_view key, CXPlistKind kind);

// Conversions. To a number: a boolean is 0 or 1; a string is the number that it begins with, or 0. To an
// integer: a fraction is truncated, a real number out of range becomes the nearest 32-bit integer, and of an
// integer the low 32 bits are used. To a boolean: true for all numbers but 0, and for strings that begin with
// Y, T or a number other than 0. Arrays, dictionaries and null are 0 and false.
/// Returns 0 if the key is absent.
DXR_EXPORT int64_t safeIntegerForKey(const CXPlist& dictionary, std::string_view key);
/// Returns 0.0 if the key is absent.
DXR_EXPORT double safeDoubleForKey(const CXPlist& dictionary, std::string_view key);
/// Returns false if the key is absent.
DXR_EXPORT bool safeBoolForKey(const CXPlist& dictionary, std::string_view key);
DXR_EXPORT bool vtBoolForKey(const CXPlist& dictionary, std::string_view key, bool defaultValue);
DXR_EXPORT int32_t vtIntForKey(const CXPlist& dictionary, std::string_view key, int32_t defaultValue);
DXR_EXPORT float vtFloatForKey(const CXPlist& dictionary, std::string_view key, float defaultValue);

struct CXSize {
    double width;
    double height;
    friend bool operator==(const CXSize&, const CXSize&) = default;
};
/// A size is an array of two numbers, or a string such as "{640, 480}". Other values are 0 by 0.
DXR_EXPORT CXSize vtSizeForKey(const CXPlist& dictionary, std::string_view key, CXSize defaultValue);

/// Sets an entry; does nothing if the object is null or there is no key.
DXR_EXPORT void vt_safeSetObject(CXPlist& dictionary, const CXPlist& object,
                                 const std::optional<std::string>& key);
/// Sets an entry to a boolean; does nothing if there is no key.
DXR_EXPORT void safeSetBool(CXPlist& dictionary, bool value, const std::optional<std::string>& key);

// --- Equality ---

/// Returns true if two property lists are equal. Ignores entries under `ignoredKey` at every depth. Numbers
/// are equal if they differ by less than 0.0005 as 32-bit floats, so that rounding in text written by other
/// programs does not matter. A number as `value` equals a string that represents it, but a string as `value`
/// does not equal a number.
DXR_EXPORT bool vtIsEqual(const CXPlist& value, const CXPlist& other,
                          const std::optional<std::string>& ignoredKey = std::nullopt);
