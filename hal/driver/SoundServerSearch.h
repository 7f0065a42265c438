#pragma once

#include <filesystem>

/// Detects whether a sound server (PipeWire, PulseAudio or JACK) uses the sound cards of this machine.
/// Threads: any. Reads the file system in every call.
class SoundServerSearch {
public:
    /// The arguments replace the system's folders in tests.
    explicit SoundServerSearch(std::filesystem::path processes = "/proc", std::filesystem::path run = "/run",
                               std::filesystem::path cards = "/dev/snd");

    /// Whether a server is running or about to run: its socket exists, an environment variable names one, or
    /// any user runs a process of a server or its session manager. That server then uses the cards.
    bool isServerExpected() const;
    bool hasCards() const;

private:
    bool _hasSocket() const;
    bool _hasProcess() const;

    const std::filesystem::path _processes, _run, _cards;
};
