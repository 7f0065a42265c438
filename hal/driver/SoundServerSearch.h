#pragma once

#include <filesystem>

/// Whether the sound cards of this machine are a sound server's: PipeWire's, PulseAudio's or JACK's.
/// Threads: any. Looks at files each time.
class SoundServerSearch {
public:
    /// The folders stand for those of the system.
    explicit SoundServerSearch(std::filesystem::path processes = "/proc", std::filesystem::path run = "/run",
                               std::filesystem::path cards = "/dev/snd");

    /// Whether a server can be reached or is about to run: its socket is there, the environment names one, or a server or
    /// its session manager is among the processes, any user's: it owns the cards then.
    bool isServerExpected() const;
    bool hasCards() const;

private:
    bool _hasSocket() const;
    bool _hasProcess() const;

    const std::filesystem::path _processes, _run, _cards;
};
