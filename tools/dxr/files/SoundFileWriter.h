#pragma once

#include "FrameRing.h"
#include "SoundFormat.h"
#include "SoundStream.h"

#include <memory>
#include <sndfile.h>
#include <string>
#include <vector>

/// A sound file that grows, or sound into a pipe. A file's header is kept true while it grows, so that what is on the disk
/// can be read however the process ends. A WAV file that is known to grow beyond its 4 GB is written as RF64, which
/// readers of large files know. Threads: one.
class SoundFileWriter {
public:
    /// Makes or empties the file; "-" is standard output. `expectedSeconds` is 0 when they are not known. Throws ToolFailure
    /// when that cannot be done.
    SoundFileWriter(const std::string& path, const SoundFormat& format, uint32_t channelCount,
                    double sampleRate, double expectedSeconds);
    ~SoundFileWriter() { finish(); }
    SoundFileWriter(const SoundFileWriter&) = delete;
    SoundFileWriter& operator=(const SoundFileWriter&) = delete;

    /// Writes up to `maxFrames` frames from the reader's side of `ring`. Throws ToolFailure when the file
    /// takes no more; what went before is in it.
    void drain(FrameRing& ring, uint64_t maxFrames);
    void writeSilence(uint64_t frameCount);
    uint64_t framesWritten() const noexcept { return _framesWritten; }
    /// Closes the file, whole frames only.
    void finish() noexcept;

private:
    struct Closer {
        void operator()(SNDFILE* file) const { sf_close(file); }
    };

    void _write(const std::vector<float>& samples, uint64_t frameCount);

    const std::string _name; // printable
    const uint32_t _channelCount;
    const uint64_t _maxFrames;                  // that the file can hold
    const uint64_t _headerEvery;                // frames
    const std::unique_ptr<SoundStream> _stream; // null for a file
    std::unique_ptr<SNDFILE, Closer> _file;
    uint64_t _framesWritten = 0;
    bool _hasFailed = false;
};
