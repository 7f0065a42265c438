#include "SoundFileReader.h"

#include "Text.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <utility>

namespace {

constexpr int maxChannels = 1024;

/// The bytes of a sample in a file; 0 if the format is compressed.
uint64_t bytesPerSample(int format)
{
    constexpr std::pair<int, uint64_t> sizes[] = {
        {SF_FORMAT_PCM_U8, 1}, {SF_FORMAT_PCM_S8, 1}, {SF_FORMAT_ALAW, 1},
        {SF_FORMAT_ULAW, 1},   {SF_FORMAT_PCM_16, 2}, {SF_FORMAT_PCM_24, 3},
        {SF_FORMAT_PCM_32, 4}, {SF_FORMAT_FLOAT, 4},  {SF_FORMAT_DOUBLE, 8}};
    for (const auto& [samples, bytes] : sizes)
        if ((format & SF_FORMAT_SUBMASK) == samples)
            return bytes;
    return 0;
}

/// Returns a chunk of a WAV or AIFF file, whose `datalen` is the size that the file declares, and copies up to
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

/// The bytes of samples that the header of an open file declares; 0 if it does not.
uint64_t declaredBytes(SNDFILE* file, const std::string& path, int format)
{
    const int kind = format & SF_FORMAT_TYPEMASK;
    if (kind == SF_FORMAT_WAV || kind == SF_FORMAT_WAVEX || kind == SF_FORMAT_RF64) {
        const uint64_t bytes = chunkNamed(file, "data", nullptr, 0).datalen;
        uint64_t sizes[3] = {}; // an RF64 file has its size in the chunk "ds64"; in other files it is unknown
        if (bytes == UINT32_MAX)
            return chunkNamed(file, "ds64", sizes, sizeof sizes).datalen > 0 ? sizes[1] : 0;
        return bytes;
    }
    if (kind == SF_FORMAT_AIFF) { // its samples follow their offset, which is 0, and a block size
        uint32_t offset = 0;
        const uint64_t bytes = chunkNamed(file, "SSND", &offset, sizeof offset).datalen;
        return bytes > 8 && offset == 0 ? bytes - 8 : 0;
    }
    if (kind == SF_FORMAT_AU && (format & SF_FORMAT_ENDMASK) != SF_ENDIAN_LITTLE) {
        uint32_t header[3] = {};
        std::ifstream(path, std::ios::binary).read(reinterpret_cast<char*>(header), sizeof header);
        return header[2] == UINT32_MAX ? 0 : ntohl(header[2]);
    }
    return 0;
}

/// Whether a file has fewer samples than its header declares. libsndfile itself refuses such CAF files only.
bool isCutShort(SNDFILE* file, const std::string& path, const SF_INFO& info)
{
    const uint64_t frameBytes = bytesPerSample(info.format) * static_cast<uint64_t>(info.channels);
    return frameBytes > 0 &&
           declaredBytes(file, path, info.format) / frameBytes > static_cast<uint64_t>(info.frames);
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
    if (!_stream && isCutShort(_file.get(), path, _info))
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
