#include "DataFolder.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <system_error>
#include <unistd.h>
#include <vector>

namespace dxr {

namespace {

/// Returns the environment variable's value if it is an absolute path, otherwise an empty string.
std::string absolutePath(const char* variable)
{
    const char* const value = secure_getenv(variable);
    return value && value[0] == '/' ? value : "";
}

std::string reason(const std::string& path)
{
    return path + ": " + std::generic_category().message(errno);
}

/// Creates the folder if it is missing, and syncs its parent so that the entry persists after a crash.
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

std::string parentOf(const std::string& path)
{
    return path.substr(0, std::max<size_t>(path.rfind('/'), 1));
}

/// Returns true if the user owns the folder, or the nearest parent that exists, or if everybody may create
/// files there.
bool isOurs(std::string path, std::string& problem)
{
    struct stat state = {};
    while (stat(path.c_str(), &state) != 0) {
        if (errno != ENOENT || path == "/") {
            problem = reason(path);
            return false;
        }
        path = parentOf(path);
    }
    const bool isForEverybody = (state.st_mode & S_ISVTX) != 0; // as /tmp
    if (state.st_uid == geteuid() || isForEverybody)
        return true;
    problem = path + " belongs to another user";
    return false;
}

/// Returns true if the folder does not exist, or only the user can create files in it.
bool isPrivate(const std::string& folder, std::string& problem)
{
    struct stat state = {};
    if (lstat(folder.c_str(), &state) != 0) {
        problem = reason(folder);
        return errno == ENOENT;
    }
    const char* fault = nullptr;
    if (!S_ISDIR(state.st_mode))
        fault = S_ISLNK(state.st_mode) ? " is a link" : " is not a folder";
    else if (state.st_uid != geteuid())
        fault = " belongs to another user";
    else if ((state.st_mode & (S_IWGRP | S_IWOTH)) != 0)
        fault = " may be written by others: chmod go-w";
    if (fault)
        problem = folder + fault;
    return !fault;
}

} // namespace

std::optional<std::string> userDataFolder(WhenMissing whenMissing, std::string& problem)
{
    std::string folder = absolutePath("XDG_DATA_HOME");
    while (folder.size() > 1 && folder.ends_with('/'))
        folder.pop_back();
    std::vector<std::string> steps{"", "/dxr"};
    if (folder.empty()) {
        folder = absolutePath("HOME");
        steps = {"/.local", "/share", "/dxr"};
        if (!folder.empty() && access(folder.c_str(), F_OK) != 0) {
            problem = reason(folder);
            return std::nullopt;
        }
    }
    if (folder.empty()) {
        problem = "there is no home directory: neither XDG_DATA_HOME nor HOME names one";
        return std::nullopt;
    }
    if (!isOurs(folder, problem))
        return std::nullopt;
    for (const std::string& step : steps) {
        folder += step;
        if (whenMissing == WhenMissing::Make && !makeFolder(folder)) {
            problem = reason(folder);
            return std::nullopt;
        }
    }
    return isPrivate(folder, problem) ? std::optional(folder) : std::nullopt;
}

std::vector<std::string> foldersToWatch(const std::string& folder)
{
    std::vector<std::string> folders;
    for (std::string path = folder; !path.empty() && folders.size() < 2; path = parentOf(path)) {
        if (access(path.c_str(), F_OK) == 0)
            folders.insert(folders.begin(), path);
        if (path == "/")
            break;
    }
    return folders;
}

} // namespace dxr
