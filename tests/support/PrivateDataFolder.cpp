// Gives every test program a separate data folder, so that no test reads or changes the developer's settings,
// and tests that run side by side do not interfere. The library creates the folder at the first write.

#include <cstdlib>
#include <filesystem>
#include <string>
#include <unistd.h>

namespace {

const class PrivateDataFolder {
public:
    PrivateDataFolder() { setenv("XDG_DATA_HOME", _path.c_str(), 1); }
    ~PrivateDataFolder()
    {
        if (std::error_code ignored; getpid() == _owner)
            std::filesystem::remove_all(_path, ignored);
    }

private:
    const pid_t _owner = getpid();
    const std::filesystem::path _path =
        std::filesystem::temp_directory_path() / ("dxr-test-data-" + std::to_string(_owner));
} folder;

} // namespace
