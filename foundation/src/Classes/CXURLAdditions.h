#pragma once

#include "CXExport.h"
#include "CXPlist.h"

#include <optional>
#include <string>

// Functions that create and check URLs, represented as text.
// Threads: any.

/// Returns the file URL of `path`, made absolute from the working directory. The URL ends with a slash if the
/// path is an existing folder. Returns nothing if the path is missing, empty or contains a null byte.
DXR_EXPORT std::optional<std::string> safeFileURLWithPath(const std::optional<std::string>& path);
/// Returns `text` if it is a well-formed URL or relative reference (RFC 3986) and not empty, otherwise
/// nothing.
DXR_EXPORT std::optional<std::string> safeURLWithString(const std::optional<std::string>& text);
/// Returns `base` with a query item "name=value" for each entry of `arguments`, in the dictionary's order,
/// before the items that it already has. A value that is not a string is written as JSON; for null, only the
/// name is written. Returns nothing if `base` is not a URL.
DXR_EXPORT std::optional<std::string> vtURLWithURL(const std::string& base, const CXPlist& arguments);
