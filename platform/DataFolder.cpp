#include "DataFolder.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace platform {

namespace {

/// The variable's value when it is the path of something from the root; else empty.
std::string absolutePath(const char* variable)
{
    const char* const value = secure_getenv(variable);
    return value && value[0] == '/' ? value : "";
}

std::string reason(const std::string& path)
{
    return path + ": " + std::generic_category().message(errno);
}

/// Makes the folder unless it is there, and its name durable.
bool makeFolder(const std::string& path)
{
    if (mkdir(path.c_str(), S_IRWXU) != 0)
        return errno == EEXIST;
    const std::string parent = path.substr(0, path.rfind('/') + 1);
    if (const int descriptor = open(parent.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); descriptor >= 0) {
        fsync(descriptor);
        close(descriptor);
    }
    return true;
}

} // namespace

std::optional<std::string> userDataFolder(std::string& trouble)
{
    std::string folder = absolutePath("XDG_DATA_HOME");
    while (folder.size() > 1 && folder.ends_with('/'))
        folder.pop_back();
    std::vector<std::string> steps{"", "/dxr"};
    if (folder.empty()) {
        folder = absolutePath("HOME");
        steps = {"/.local", "/share", "/dxr"};
    }
    if (folder.empty()) {
        trouble = "there is no home directory: neither XDG_DATA_HOME nor HOME names one";
        return std::nullopt;
    }
    for (const std::string& step : steps) {
        folder += step;
        if (!makeFolder(folder)) {
            trouble = reason(folder);
            return std::nullopt;
        }
    }
    struct stat state = {};
    if (stat(folder.c_str(), &state) != 0) {
        trouble = reason(folder);
        return std::nullopt;
    }
    if (!S_ISDIR(state.st_mode) || state.st_uid != geteuid()) {
        trouble = folder + (S_ISDIR(state.st_mode) ? " belongs to another user" : " is not a folder");
        return std::nullopt;
    }
    return folder;
}

} // namespace platform
