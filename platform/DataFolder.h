#pragma once

#include <optional>
#include <string>

namespace platform {

/// The library's folder among what the user's programs keep: "dxr" in XDG_DATA_HOME, else in ~/.local/share, made
/// with mode 0700 when it is missing. It is not made where there is no home directory, or no folder above
/// XDG_DATA_HOME; nor used when it is another user's. Nothing then, and `trouble` says why.
/// Threads: any.
std::optional<std::string> userDataFolder(std::string& trouble);

} // namespace platform
