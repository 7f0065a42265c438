#pragma once

#include "FrameRing.h"
#include "SoundFormat.h"
#include "SoundStream.h"

/// Reads a sound file or a pipe as frames of 32-bit floats. Files of floats are read without change.
/// Threads: one at a time. Waits: fill(), while a pipe has no data.
class SoundFileReader {
public:
    /// "-" is standard input. Throws ToolFailure, also for a file that is shorter than its header declares, if
    /// that is known of its format: WAV, RF64, AIFF, AU and CAF.
    explicit SoundFileReader(const std::string& path, const SoundFormat& format = {});

    bool isStream() const noexcept { return _stream != nullptr; } ///< whether the length is unknown
    uint32_t channelCount() const noexcept { return static_cast<uint32_t>(_info.channels); }
    double sampleRate() const noexcept { return _info.samplerate; } ///< Hz
    uint64_t frameCount() const noexcept { return _length; }
    /// Limits reading to this many frames. A file with fewer frames is repeated. Call it before fill().
    void setFrameCount(uint64_t frameCount) noexcept { _length = frameCount; }
    /// Reads as many frames as fit into `ring`, which must have the file's channels. Returns false after the
    /// last frame. Throws ToolFailure.
    bool fill(FrameRing& ring);

private:
    void _open(const std::string& path);

    const std::string _name; // printable
    SF_INFO _info{};
    std::unique_ptr<SoundStream> _stream; // null for a file
    SoundHandle _file;
    uint64_t _length = 0, _framesRead = 0;
};
