#pragma once

#include "FrameRing.h"
#include "SoundFormat.h"
#include "SoundStream.h"

/// Writes a sound file or a pipe. A file's header is updated while it is written, so that the file is valid
/// however the process ends. A WAV file that is expected to exceed 4 GB is written as RF64.
class SoundFileWriter {
public:
    /// Creates the file; "-" is standard output. `expectedSeconds` is 0 if unknown. Throws ToolFailure.
    SoundFileWriter(const std::string& path, const SoundFormat& format, uint32_t channelCount,
                    double sampleRate, double expectedSeconds);

    /// Writes up to `maxFrames` frames of `ring`. Throws ToolFailure at the first that cannot be written.
    void drain(FrameRing& ring, uint64_t maxFrames);
    void writeSilence(uint64_t frameCount);
    uint64_t framesWritten() const noexcept { return _framesWritten; }
    void finish() noexcept { _file.reset(); } ///< closes the file

private:
    void _setUp(const SoundFormat& format);
    void _write(const std::vector<float>& samples, uint64_t frameCount);

    const std::string _name; // printable
    const uint32_t _channelCount;
    const uint64_t _maxFrames;                  // that the format can hold
    const uint64_t _headerEvery;                // frames between two updates of the header
    const std::unique_ptr<SoundStream> _stream; // null for a file
    SoundHandle _file;
    uint64_t _framesWritten = 0;
    bool _hasFailed = false;
};
