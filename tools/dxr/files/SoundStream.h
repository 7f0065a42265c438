#pragma once

#include <cstdint>
#include <memory>
#include <sndfile.h>
#include <string>
#include <vector>

/// Sound that cannot be gone back in, from or to a pipe, as libsndfile wants its files: bytes are kept while a header is
/// looked at or made. Threads: one.
class SoundStream {
public:
    enum class Mode { Read, Write };
    enum class Files { No, Too };

    /// "-" is standard input, or standard output; then everything else that is printed goes to standard error. Null for
    /// what is a file, unless they are wanted, too, or is not there.
    static std::unique_ptr<SoundStream> open(const std::string& path, Mode mode, Files files = Files::No);
    ~SoundStream();
    SoundStream(const SoundStream&) = delete;
    SoundStream& operator=(const SoundStream&) = delete;

    SNDFILE* openSound(SF_INFO& info);
    /// The header has been read, or made: bytes pass from now on. False when they cannot be written.
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
    std::vector<char> _bytes; // kept, from _first on
    uint64_t _first = 0, _position = 0;
};
