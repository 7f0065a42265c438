#include "SoundStream.h"

#include "Interrupts.h"
#include "Text.h"

#include <algorithm>
#include <array>
#include <climits>
#include <cstring>
#include <fcntl.h>
#include <string_view>
#include <sys/stat.h>
#include <unistd.h>

namespace {

constexpr uint64_t kept = 1U << 20;       // bytes before the position that are kept, once past the header
constexpr sf_count_t unknown = 1LL << 60; // a length that no stream reaches
constexpr uint64_t maxHeader = 1U << 29;  // bytes kept until the sound begins

/// The first four bytes of formats that libsndfile reads sequentially.
constexpr std::array<std::string_view, 8> sequential{"RIFF", "riff", "RIFX", "RF64",
                                                     "fLaC", ".snd", "FORM", "caff"};

/// Replaces a length of 0 in a header by the maximum: the writer did not know the length.
void openEnds(std::vector<char>& header)
{
    const std::string_view text(header.data(), header.size());
    const auto setAll = [&](size_t at) {
        std::fill_n(header.begin() + static_cast<std::ptrdiff_t>(at), 4, '\xFF');
    };
    if (text.starts_with("fLaC") && text.size() > 26 && (text[21] & 0xF) == 0 &&
        text.substr(22, 4) == std::string_view("\0\0\0\0", 4)) {
        header[21] = static_cast<char>(header[21] | 0xF);
        setAll(22);
    } else if (const size_t data = text.find("data");
               text.starts_with("RIFF") && data != text.npos && data + 8 <= text.size()) {
        setAll(4);
        setAll(data + 4);
    }
}

/// Opens a FIFO once another program reads it. Throws ToolFailure if the user asks to stop before.
int openToWrite(const std::string& path)
{
    constexpr int pauseMilliseconds = 50;
    int descriptor = -1;
    while ((descriptor = ::open(path.c_str(), O_WRONLY | O_CLOEXEC | O_NONBLOCK)) < 0 && errno == ENXIO)
        if (!Interrupts::wait(pauseMilliseconds, -1))
            throw ToolFailure("stopped: no program reads " + singleLine(path));
    return descriptor;
}

} // namespace

std::unique_ptr<SoundStream> SoundStream::open(const std::string& path, Mode mode, Files files)
{
    int descriptor = -1;
    struct stat status {};
    if (path == "-" && mode == Mode::Read) {
        descriptor = ::dup(STDIN_FILENO);
    } else if (path == "-") {
        descriptor = ::dup(STDOUT_FILENO);
        ::dup2(STDERR_FILENO, STDOUT_FILENO);
    } else if (::stat(path.c_str(), &status) == 0 && (files == Files::Too || S_ISFIFO(status.st_mode))) {
        descriptor = mode == Mode::Read ? ::open(path.c_str(), O_RDONLY | O_CLOEXEC) : openToWrite(path);
    }
    return descriptor < 0 ? nullptr : std::unique_ptr<SoundStream>(new SoundStream(descriptor, mode));
}

SoundStream::~SoundStream()
{
    ::close(_descriptor);
}

SNDFILE* SoundStream::openSound(SF_INFO& info)
{
    static SF_VIRTUAL_IO io = {
        [](void* self) -> sf_count_t {
            const auto& it = *static_cast<SoundStream*>(self);
            return it._mode == Mode::Write || it._isOver ? static_cast<sf_count_t>(it._end()) : unknown;
        },
        [](sf_count_t offset, int whence, void* self) {
            auto& it = *static_cast<SoundStream*>(self);
            const auto from = whence == SEEK_CUR ? it._position : whence == SEEK_END ? it._end() : 0;
            it._position = from + static_cast<uint64_t>(offset);
            return static_cast<sf_count_t>(it._position);
        },
        [](void* bytes, sf_count_t count, void* self) {
            return static_cast<SoundStream*>(self)->_read(bytes, count);
        },
        [](const void* bytes, sf_count_t count, void* self) {
            return static_cast<SoundStream*>(self)->_write(bytes, count);
        },
        [](void* self) { return static_cast<sf_count_t>(static_cast<SoundStream*>(self)->_position); }};
    if (_mode == Mode::Write)
        return sf_open_virtual(&io, SFM_WRITE, &info, this);
    _readUpTo(64);
    const std::string_view magic(_bytes.data(), std::min<size_t>(_bytes.size(), 4));
    const bool isRaw = (info.format & SF_FORMAT_TYPEMASK) == SF_FORMAT_RAW;
    if (magic == "fLaC")
        openEnds(_bytes);
    else if (!isRaw && std::ranges::find(sequential, magic) == sequential.end())
        _readUpTo(UINT64_MAX); // libsndfile may read the end first, so the whole stream is needed
    SNDFILE* const file = sf_open_virtual(&io, SFM_READ, &info, this);
    if (_end() < maxHeader)
        return file;
    sf_close(file);
    throw ToolFailure("this is not sound, or too long for a pipe in its format: use a file");
}

bool SoundStream::begin()
{
    _hasBegun = true;
    if (_mode == Mode::Read)
        return true;
    if (_bytes.size() > 4 && _bytes[0] == 'R') // in FLAC, 0 means unknown
        openEnds(_bytes);
    const bool isPassed = _pass(_bytes.data(), _bytes.size());
    _first = _end();
    _bytes.clear();
    return isPassed;
}

bool SoundStream::_readUpTo(uint64_t end)
{
    while (!_isOver && _end() < end) {
        std::array<char, 65536> block;
        const ssize_t got = ::read(_descriptor, block.data(), std::min<uint64_t>(block.size(), end - _end()));
        if (got < 0 && errno == EINTR)
            continue;
        _isOver = got <= 0 || (!_hasBegun && _end() >= maxHeader);
        _bytes.insert(_bytes.end(), block.data(), block.data() + std::max<ssize_t>(got, 0));
    }
    return _end() >= end;
}

sf_count_t SoundStream::_read(void* bytes, sf_count_t count)
{
    // libsndfile may look for chunks beyond a declared length that is wrong: there are none.
    if (_position < _first || _position > _end() + kept)
        return 0;
    _readUpTo(_position + static_cast<uint64_t>(count));
    if (_position >= _end())
        return 0;
    const uint64_t got = std::min(static_cast<uint64_t>(count), _end() - _position);
    std::memcpy(bytes, &_bytes[_position - _first], got);
    _position += got;
    if (_hasBegun && _position - _first > 2 * kept) {
        _bytes.erase(_bytes.begin(), _bytes.begin() + static_cast<std::ptrdiff_t>(_position - _first - kept));
        _first = _position - kept;
    }
    return static_cast<sf_count_t>(got);
}

/// After begin(), an updated header is ignored: it has already been written to the pipe.
sf_count_t SoundStream::_write(const void* bytes, sf_count_t count)
{
    const auto size = static_cast<size_t>(count);
    if (_hasBegun) {
        if (_position == _first && !_pass(static_cast<const char*>(bytes), size))
            return 0;
        _first += _position == _first ? size : 0;
    } else {
        _bytes.resize(std::max<size_t>(_bytes.size(), _position + size));
        std::memcpy(&_bytes[_position], bytes, size);
    }
    _position += size;
    return count;
}

bool SoundStream::_pass(const char* bytes, size_t count) const
{
    while (count > 0 && Interrupts::waitToWrite(_descriptor)) {
        // A pipe that can be written takes that many bytes without blocking.
        const ssize_t written = ::write(_descriptor, bytes, std::min<size_t>(count, PIPE_BUF));
        if (written < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        if (written <= 0)
            return false;
        bytes += written;
        count -= static_cast<size_t>(written);
    }
    return count == 0;
}
