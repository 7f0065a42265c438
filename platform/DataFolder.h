#pragma once

#include <optional>
#include <string>
#include <vector>

namespace dxr {

enum class WhenMissing { Leave, Make };

/// Returns the library's folder in the user's data directory: "dxr" in XDG_DATA_HOME, or in ~/.local/share if
/// that is not set. With WhenMissing::Make, creates it with mode 0700, and its missing parents; otherwise the
/// folder may not exist. Returns nothing, with the reason in `problem`, if there is no home directory; if the
/// directory belongs to another user (as root, creating folders there would take them from their owner); or
/// if the folder is a symbolic link, belongs to another user or is writable by others.
/// Threads: any.
std::optional<std::string> userDataFolder(WhenMissing whenMissing, std::string& problem);

/// The folders to watch for changes of `folder`: the folder itself and its parent if they exist, otherwise
/// the nearest parent that exists. Outermost first.
std::vector<std::string> foldersToWatch(const std::string& folder);

} // namespace dxr
