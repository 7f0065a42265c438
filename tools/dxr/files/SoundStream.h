#pragma once

#include <cstdint>
#include <memory>
#include <sndfile.h>
#include <string>
#include <vector>

struct SoundCloser {
    void operator()(SNDFILE* file) const { sf_close(file); }
};
using SoundHandle = std::unique_ptr<SNDFILE, SoundCloser>;

/// Lets libsndfile, which needs a seekable file, read or write a pipe: keeps the header's bytes in memory.
class SoundStream {
public:
    enum class Mode { Read, Write };
    enum class Files { No, Too };

    /// "-" is standard input or output; for standard output, all printed text is redirected to standard
    /// error. Null for a missing file, and for a regular file unless `files` is Too.
    static std::unique_ptr<SoundStream> open(const std::string& path, Mode mode, Files files = Files::No);
    SoundStream() : SoundStream(-1, Mode::Write) {} ///< keeps all in memory, to try a format
    ~SoundStream();
    SoundStream(const SoundStream&) = delete;
    SoundStream& operator=(const SoundStream&) = delete;

    SNDFILE* openSound(SF_INFO& info);
    /// Call it after libsndfile has read or written the header. Returns false if the pipe cannot be written.
    bool begin();

private:
    SoundStream(int descriptor, Mode mode) : _descriptor(descriptor), _mode(mode) {}

    uint64_t _end() const { return _first + _bytes.size(); }
    bool _readUpTo(uint64_t end);
    sf_count_t _read(void* bytes, sf_count_t count);
    sf_count_t _write(const void* bytes, sf_count_t count);
    bool _pass(const char* bytes, size_t count) const;

    const int _descriptor;
    const Mode _mode;
    bool _hasBegun = false, _isOver = false;
    std::vector<char> _bytes; // the bytes kept, from offset _first
    uint64_t _first = 0, _position = 0;
};
