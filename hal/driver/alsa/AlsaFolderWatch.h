#pragma once

#include <cstdint>
#include <functional>
#include <string>

/// Reports what happens to the device files of sound cards.
/// Threads: one.
class AlsaFolderWatch {
public:
    AlsaFolderWatch();
    ~AlsaFolderWatch();
    AlsaFolderWatch(const AlsaFolderWatch&) = delete;
    AlsaFolderWatch& operator=(const AlsaFolderWatch&) = delete;

    enum class Event {
        Appeared, ///< the file, or its rights
        Gone,
        Used,    ///< opened or closed by some program
        Unknown, ///< anything may have changed; no name
    };
    /// Becomes readable when read() has something to report; -1 when nothing can be watched.
    int descriptor() const noexcept { return _descriptor; }
    void read(const std::function<void(Event event, const std::string& name)>& report);

private:
    void _watch();

    const int _descriptor;
    int _folder = -1; // the watch of /dev/snd, while that exists
    int _above = -1;  // of /dev
};
