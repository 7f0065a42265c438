#pragma once

#include "CXExport.h"

#include <optional>
#include <string>

// Identifies the application that this process belongs to.
// Threads: any.
// Real time: no.

/// Sets the application's identifier, a name that is the same in every run ("com.example.player"). Call it
/// once, before using the library: later settings are stored for this application. std::nullopt or an empty
/// string means none.
DXR_EXPORT void CXSetMainBundleIdentifier(const std::optional<std::string>& identifier);
/// Returns std::nullopt if no identifier was set.
DXR_EXPORT std::optional<std::string> CXMainBundleIdentifier();
