#include "PrivateSettings.h"

#include "ToolFailure.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

PrivateSettings::PrivateSettings()
{
    std::error_code ignored;
    std::string folder = std::filesystem::temp_directory_path(ignored) / "dxr-demo-XXXXXX";
    if (ignored || !mkdtemp(folder.data()))
        throw ToolFailure(folder + ": cannot be made: " + std::strerror(errno));
    _folder = folder;
    setenv("XDG_DATA_HOME", folder.c_str(), 1); // where the library keeps what it remembers
}

PrivateSettings::~PrivateSettings()
{
    std::error_code ignored;
    std::filesystem::remove_all(_folder, ignored);
}
