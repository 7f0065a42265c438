#pragma once

#include <filesystem>
#include <string>
#include <sys/types.h>
#include <vector>

/// Starts a program whose environment has only PATH, `folder` as home and runtime folder, and `variables`
/// (NAME=value). The program is killed when the calling thread ends. Throws std::runtime_error on failure.
pid_t startPrivateProcess(const std::vector<std::string>& command, const std::filesystem::path& folder,
                          const std::vector<std::string>& variables = {});
/// Sends `signal`, also to a stopped process, and waits until it has ended.
void endPrivateProcess(pid_t process, int signal);
