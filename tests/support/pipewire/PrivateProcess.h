#pragma once

#include <filesystem>
#include <string>
#include <sys/types.h>
#include <vector>

/// Starts a program with no environment but PATH, and `folder` as home and runtime folder; `variables` (as
/// NAME=value) come on top. It is killed when the calling thread ends. Throws std::runtime_error on failure.
pid_t startPrivateProcess(const std::vector<std::string>& command, const std::filesystem::path& folder,
                          const std::vector<std::string>& variables = {});
/// Sends `signal` (to a stopped process too) and waits for its end.
void endPrivateProcess(pid_t process, int signal);
