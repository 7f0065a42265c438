#include "SoundFileReader.h"

#include "DisplayText.h"
#include "ToolFailure.h"
#include "WaveCheck.h"

#include <algorithm>
#include <cstring>

SoundFileReader::SoundFileReader(const std::string& path, const SoundFormat& format)
    : _name(path == "-" ? "standard input" : singleLine(path)),
      _stream(SoundStream::open(path, SoundStream::Mode::Read))
{
    if (format.isRaw()) {
        _info.format = format.code;
        _info.samplerate = static_cast<int>(format.sampleRate);
        _info.channels = static_cast<int>(format.channelCount);
    } else if (const std::string fault = _stream ? "" : waveFileFault(path); !fault.empty()) {
        throw ToolFailure(_name + ": " + fault);
    }
    _file.reset(_stream ? _stream->openSound(_info) : sf_open(path.c_str(), SFM_READ, &_info));
    if (_file && !_stream && (_info.frames <= 0 || _info.frames == SF_COUNT_MAX) &&
        (_info.format & SF_FORMAT_TYPEMASK) == SF_FORMAT_FLAC) {
        _stream = SoundStream::open(path, SoundStream::Mode::Read,
                                    SoundStream::Files::Too); // it came through a pipe
        _file.reset(_stream ? _stream->openSound(_info) : nullptr);
    }
    if (!_file)
        throw ToolFailure(_name + ": no sound file: " + singleLine(sf_strerror(nullptr)));
    constexpr int maxChannels = 1024;
    if (_info.frames <= 0)
        throw ToolFailure(_name + ": holds no sound");
    if (_info.channels < 1 || _info.channels > maxChannels || _info.samplerate < 1)
        throw ToolFailure(_name + ": no sound file: its header makes no sense");
    _length = static_cast<uint64_t>(_info.frames);
    if (_stream)
        _stream->begin();
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
