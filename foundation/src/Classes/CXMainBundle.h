#pragma once

#include "CXExport.h"

#include <optional>
#include <string>

// Which application this process is.
// Threads: any.
// Real time: no.

/// Says who the application is, by a name that stays the same from run to run ("com.example.player"). Once,
/// before the library is used: settings are remembered as this application's from then on. Nothing, or the
/// empty string, for none.
DXR_EXPORT void CXSetMainBundleIdentifier(const std::optional<std::string>& identifier);
/// Nothing while the application has not said.
DXR_EXPORT std::optional<std::string> CXMainBundleIdentifier();
