#include "SoundFileReader.h"

#include "Text.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <utility>

namespace {

constexpr int maxChannels = 1024;

/// The bytes of a sample in a WAV file; 0 if the format is compressed.
uint64_t bytesPerSample(int format)
{
    constexpr std::pair<int, uint64_t> sizes[] = {
        {SF_FORMAT_PCM_U8, 1}, {SF_FORMAT_ALAW, 1},   {SF_FORMAT_ULAW, 1}, {SF_FORMAT_PCM_16, 2},
        {SF_FORMAT_PCM_24, 3}, {SF_FORMAT_PCM_32, 4}, {SF_FORMAT_FLOAT, 4}};
    for (const auto& [samples, bytes] : sizes)
        if ((format & SF_FORMAT_SUBMASK) == samples)
            return bytes;
    return 0;
}

/// Returns a chunk of a WAV file, whose `datalen` is the size that the file declares, and copies up to
/// `bytes` bytes to `data` unless that is null. `datalen` is 0 if there is no such chunk.
SF_CHUNK_INFO chunkNamed(SNDFILE* file, const char* name, void* data, uint32_t bytes)
{
    SF_CHUNK_INFO chunk{};
    std::strcpy(chunk.id, name);
    chunk.id_size = 4;
    const SF_CHUNK_ITERATOR* const found = sf_get_chunk_iterator(file, &chunk);
    if (!found || sf_get_chunk_size(found, &chunk) != SF_ERR_NO_ERROR)
        return {};
    const uint32_t size = std::exchange(chunk.datalen, bytes);
    chunk.data = data;
    if (data)
        sf_get_chunk_data(found, &chunk);
    chunk.datalen = size;
    return chunk;
}

/// Whether a WAV file has fewer samples than its header declares, which libsndfile accepts.
bool isCutShort(SNDFILE* file, const SF_INFO& info)
{
    uint64_t bytes = chunkNamed(file, "data", nullptr, 0).datalen;
    if (bytes == UINT32_MAX) { // an RF64 file has its size in the chunk "ds64"; in other files it is unknown
        uint64_t sizes[3] = {};
        bytes = chunkNamed(file, "ds64", sizes, sizeof sizes).datalen > 0 ? sizes[1] : 0;
    }
    const uint64_t frameBytes = bytesPerSample(info.format) * static_cast<uint64_t>(info.channels);
    return frameBytes > 0 && bytes / frameBytes > static_cast<uint64_t>(info.frames);
}

} // namespace

SoundFileReader::SoundFileReader(const std::string& path, const SoundFormat& format)
    : _name(path == "-" ? "standard input" : singleLine(path)),
      _stream(SoundStream::open(path, SoundStream::Mode::Read))
{
    std::error_code ignored;
    if (!_stream && std::filesystem::is_directory(path, ignored))
        throw ToolFailure(_name + ": is a folder");
    if (!_stream && !std::ifstream(path))
        throw ToolFailure(_name + ": " + std::strerror(errno));
    _info.format = format.code;
    _info.samplerate = static_cast<int>(format.sampleRate);
    _info.channels = static_cast<int>(format.channelCount);
    _open(path);
    if (_info.frames <= 0)
        throw ToolFailure(_name + ": contains no sound");
    if (_info.channels < 1 || _info.channels > maxChannels || _info.samplerate < 1)
        throw ToolFailure(_name + ": not a sound file: its header is invalid");
    if (!_stream && !format.isRaw() && isCutShort(_file.get(), _info))
        throw ToolFailure(_name + ": is truncated");
    _length = static_cast<uint64_t>(_info.frames);
    if (_stream)
        _stream->begin();
}

void SoundFileReader::_open(const std::string& path)
{
    _file.reset(_stream ? _stream->openSound(_info) : sf_open(path.c_str(), SFM_READ, &_info));
    const bool isFLAC = (_info.format & SF_FORMAT_TYPEMASK) == SF_FORMAT_FLAC;
    if (_file && !_stream && isFLAC && (_info.frames <= 0 || _info.frames == SF_COUNT_MAX)) {
        // The file was written to a pipe, so its header lacks the length: read it as a stream.
        _stream = SoundStream::open(path, SoundStream::Mode::Read, SoundStream::Files::Too);
        _file.reset(_stream ? _stream->openSound(_info) : nullptr);
    }
    if (!_file)
        throw ToolFailure(_name + ": not a sound file: " + singleLine(sf_strerror(nullptr)));
}

bool SoundFileReader::fill(FrameRing& ring)
{
    constexpr uint64_t framesAtOnce = 4096;
    const auto inFile = static_cast<uint64_t>(_info.frames);
    uint64_t left = std::min(ring.writableFrames(), _length - _framesRead);
    std::vector<float> samples(std::min(left, framesAtOnce) * channelCount());
    while (left > 0) {
        const auto wanted =
            static_cast<sf_count_t>(std::min({left, framesAtOnce, inFile - _framesRead % inFile}));
        const sf_count_t got = sf_readf_float(_file.get(), samples.data(), wanted);
        for (sf_count_t frame = 0; frame < got; ++frame)
            std::copy_n(&samples[static_cast<size_t>(frame) * channelCount()], channelCount(),
                        ring.frameToWrite(static_cast<uint64_t>(frame)));
        ring.commitWrite(static_cast<uint64_t>(got));
        _framesRead += static_cast<uint64_t>(got);
        left -= static_cast<uint64_t>(got);
        if (got < wanted && _stream)
            return false;
        const bool isAgain = _framesRead % inFile == 0 && _framesRead < _length;
        if (got < wanted || (isAgain && sf_seek(_file.get(), 0, SEEK_SET) < 0))
            throw ToolFailure(_name + ": cannot be read to its end" +
                              (sf_error(_file.get()) ? ": " + singleLine(sf_strerror(_file.get())) : ""));
    }
    return _framesRead < _length;
}
