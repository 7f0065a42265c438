#pragma once

#include "FrameRing.h"
#include "SoundFormat.h"
#include "SoundStream.h"

/// Reads a sound file, or sound from a pipe, as 32-bit float frames; floats are not changed.
/// Threads: one; fill() waits for a pipe.
class SoundFileReader {
public:
    /// "-" is standard input. Throws ToolFailure, naming the file, when it is not a whole sound file with
    /// frames.
    explicit SoundFileReader(const std::string& path, const SoundFormat& format = {});

    bool isStream() const noexcept { return _stream != nullptr; } ///< of unknown length
    uint32_t channelCount() const noexcept { return static_cast<uint32_t>(_info.channels); }
    double sampleRate() const noexcept { return _info.samplerate; } ///< Hz
    uint64_t frameCount() const noexcept { return _length; }
    /// Reads this many frames: fewer than there are, or those of a file repeated. Before the first fill().
    void setFrameCount(uint64_t frameCount) noexcept { _length = frameCount; }
    /// Reads as much as fits into `ring`, which has the file's channels. False after the last frame. Throws
    /// ToolFailure.
    bool fill(FrameRing& ring);

private:
    void _open(const std::string& path);

    const std::string _name; // printable
    SF_INFO _info{};
    std::unique_ptr<SoundStream> _stream; // null for a file
    SoundHandle _file;
    uint64_t _length = 0, _framesRead = 0;
};
