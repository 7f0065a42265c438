#pragma once

#include <filesystem>

/// Remembered settings that begin empty, are seen by this process alone, and go with this object: the user's own are
/// neither read nor changed. Make one before anything asks for settings.
/// Threads: one, and no other may be running when it is made.
class PrivateSettings {
public:
    /// Throws ToolFailure when there is no room for temporary files.
    PrivateSettings();
    ~PrivateSettings();
    PrivateSettings(const PrivateSettings&) = delete;
    PrivateSettings& operator=(const PrivateSettings&) = delete;

private:
    std::filesystem::path _folder;
};
