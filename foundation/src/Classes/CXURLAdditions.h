#pragma once

#include "CXExport.h"
#include "CXPlist.h"

#include <optional>
#include <string>

// URLs as text, checked where they are made.
// Threads: any.

/// The file URL of `path`, made absolute from the working directory, with a slash at the end where it names a
/// folder that is there. Nothing for no path, an empty one, or one that holds a null byte.
DXR_EXPORT std::optional<std::string> safeFileURLWithPath(const std::optional<std::string>& path);
/// `text` if it is a well-formed URL or relative reference (RFC 3986) and not empty, else nothing.
DXR_EXPORT std::optional<std::string> safeURLWithString(const std::optional<std::string>& text);
/// `base` with a query item "name=value" for each entry of `arguments`, in the dictionary's order, ahead of
/// the items that it has. A value that is no string is written as JSON; null stands for a name alone. Nothing
/// when `base` is no URL.
DXR_EXPORT std::optional<std::string> vtURLWithURL(const std::string& base, const CXPlist& arguments);
