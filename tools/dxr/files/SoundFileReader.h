#pragma once

#include "FrameRing.h"
#include "SoundFormat.h"
#include "SoundStream.h"

#include <memory>
#include <sndfile.h>
#include <string>

/// A sound file, or sound from a pipe, read from its start as 32-bit float frames; float files bit by bit as they are.
/// Threads: one; of a pipe, fill() waits for what is to come.
class SoundFileReader {
public:
    /// "-" is standard input. Throws ToolFailure, with a line that names the file, when it cannot be read, is not a sound
    /// file, is cut short or holds no frames.
    explicit SoundFileReader(const std::string& path, const SoundFormat& format = {});

    bool isStream() const noexcept { return _stream != nullptr; } ///< its length is not known

    uint32_t channelCount() const noexcept { return static_cast<uint32_t>(_info.channels); }
    double sampleRate() const noexcept { return _info.samplerate; } ///< Hz
    uint64_t frameCount() const noexcept { return _length; }        ///< that are given in all
    /// Gives so many frames: fewer than there are, or those of a file again and again. Before the first is read.
    void setFrameCount(uint64_t frameCount) noexcept { _length = frameCount; }
    /// Reads what fits into the writer's side of `ring`, which has the file's channels. False once all have
    /// been given. Throws ToolFailure when the file cannot be read on.
    bool fill(FrameRing& ring);

private:
    struct Closer {
        void operator()(SNDFILE* file) const { sf_close(file); }
    };

    const std::string _name; // printable
    SF_INFO _info{};
    std::unique_ptr<SoundStream> _stream; // null for a file
    std::unique_ptr<SNDFILE, Closer> _file;
    uint64_t _length = 0, _framesRead = 0;
};
