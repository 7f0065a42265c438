#pragma once

#include <chrono>
#include <filesystem>
#include <functional>

/// Waits for something to become true that changes with the content of a folder.
/// Threads: one.
class FolderWatch {
public:
    explicit FolderWatch(const std::filesystem::path& folder);
    ~FolderWatch();
    FolderWatch(const FolderWatch&) = delete;
    FolderWatch& operator=(const FolderWatch&) = delete;

    /// Asks now and after every change in the folder, for a moment longer than the change: what follows it (a
    /// listen after a bind) may make none. False when `patience` runs out.
    bool waitUntil(const std::function<bool()>& isTrue,
                   std::chrono::milliseconds patience = std::chrono::seconds(20));

private:
    const int _descriptor;
};
