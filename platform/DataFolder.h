#pragma once

#include <optional>
#include <string>
#include <vector>

namespace dxr {

enum class WhenMissing { Leave, Make };

/// The library's folder in the user's data directory: "dxr" in XDG_DATA_HOME, else in ~/.local/share. Made
/// with mode 0700, with the folders above it that are missing, if `whenMissing` says so; else it need not
/// exist. Refused, with `problem` saying why: without a home directory; in one that belongs to another user,
/// where root would take folders from their owner; and when it is a link, belongs to another user or may be
/// written by others.
/// Threads: any.
std::optional<std::string> userDataFolder(WhenMissing whenMissing, std::string& problem);

/// The folders in which a change of `folder` shows: itself and its parent as far as they exist, else the
/// nearest folder above. Outermost first.
std::vector<std::string> foldersToWatch(const std::string& folder);

} // namespace dxr
