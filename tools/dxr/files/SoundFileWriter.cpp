#include "SoundFileWriter.h"

#include "Text.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

namespace {

constexpr uint64_t maxWaveBytes = 0xFFFFFFFFU - 4096; // of samples: sizes in the header have 32 bits
constexpr uint64_t framesAtOnce = 4096;

bool exceedsWave(double seconds, double sampleRate, uint32_t channelCount)
{
    return seconds * sampleRate * channelCount * sizeof(float) > static_cast<double>(maxWaveBytes);
}

/// The loudspeaker positions of the channels; empty for a channel count without a standard layout.
std::vector<int> channelMap(uint32_t channelCount)
{
    std::vector<int> map;
    if (channelCount == 1)
        map = {SF_CHANNEL_MAP_CENTER};
    if (channelCount == 2 || channelCount == 4)
        map = {SF_CHANNEL_MAP_LEFT, SF_CHANNEL_MAP_RIGHT, SF_CHANNEL_MAP_REAR_LEFT,
               SF_CHANNEL_MAP_REAR_RIGHT};
    if (channelCount == 6 || channelCount == 8)
        map = {SF_CHANNEL_MAP_LEFT,      SF_CHANNEL_MAP_RIGHT,     SF_CHANNEL_MAP_CENTER,
               SF_CHANNEL_MAP_LFE,       SF_CHANNEL_MAP_REAR_LEFT, SF_CHANNEL_MAP_REAR_RIGHT,
               SF_CHANNEL_MAP_SIDE_LEFT, SF_CHANNEL_MAP_SIDE_RIGHT};
    map.resize(std::min<size_t>(map.size(), channelCount));
    return map;
}

/// Whether the format allows the channels and the rate. Some encoders refuse them only with the first frame.
bool isPossible(SF_INFO info)
{
    SoundStream memory;
    const SoundHandle file(memory.openSound(info));
    const std::vector<float> silence(static_cast<size_t>(info.channels));
    return file && sf_writef_float(file.get(), silence.data(), 1) == 1;
}

std::string reasonText(int error, SNDFILE* file)
{
    return error ? std::strerror(error) : singleLine(sf_strerror(file));
}

} // namespace

SoundFileWriter::SoundFileWriter(const std::string& path, const SoundFormat& format, uint32_t channelCount,
                                 double sampleRate, double expectedSeconds)
    : _name(path == "-" ? "standard output" : singleLine(path)), _channelCount(channelCount),
      _maxFrames(!format.isWave() || path == "-" || exceedsWave(expectedSeconds, sampleRate, channelCount)
                     ? UINT64_MAX
                     : maxWaveBytes / (uint64_t{channelCount} * sizeof(float))),
      _headerEvery(static_cast<uint64_t>(sampleRate)),
      _stream(SoundStream::open(path, SoundStream::Mode::Write))
{
    if (_stream && !format.isStreamed())
        throw ToolFailure(_name + ": this format needs a file; wav, flac, ogg, f32 and others do not");
    SF_INFO info{};
    info.channels = static_cast<int>(channelCount);
    info.samplerate = static_cast<int>(sampleRate);
    info.format = format.code;
    if (format.isWave() && !_stream && _maxFrames == UINT64_MAX)
        info.format = SF_FORMAT_RF64 | (format.code & SF_FORMAT_SUBMASK);
    if (!isPossible(info)) // before an existing file is truncated
        throw ToolFailure(_name + ": this format does not support " + formatCount(channelCount, "channel") +
                          " at " + formatRate(sampleRate));
    errno = 0;
    _file.reset(_stream ? _stream->openSound(info) : sf_open(path.c_str(), SFM_WRITE, &info));
    if (!_file)
        throw ToolFailure(_name + ": cannot be written: " + reasonText(errno, nullptr));
    _setUp(format);
}

void SoundFileWriter::_setUp(const SoundFormat& format)
{
    sf_command(_file.get(), SFC_RF64_AUTO_DOWNGRADE, nullptr, SF_TRUE);
    sf_command(_file.get(), SFC_SET_ADD_PEAK_CHUNK, nullptr, SF_FALSE);
    sf_command(_file.get(), SFC_SET_CLIPPING, nullptr, SF_TRUE);
    if (std::vector<int> map = channelMap(_channelCount); !map.empty())
        sf_command(_file.get(), SFC_SET_CHANNEL_MAP_INFO, map.data(),
                   static_cast<int>(map.size() * sizeof(int)));
    if (!format.isOgg()) // libsndfile would write a second header
        sf_command(_file.get(), SFC_UPDATE_HEADER_NOW, nullptr, 0);
    if (sf_error(_file.get()) || (_stream && !_stream->begin()))
        throw ToolFailure(
            _name + ": cannot be written: " + reasonText(sf_error(_file.get()) ? 0 : errno, _file.get()));
}

void SoundFileWriter::drain(FrameRing& ring, uint64_t maxFrames)
{
    uint64_t left = _hasFailed ? 0 : std::min(ring.readableFrames(), maxFrames);
    std::vector<float> samples(std::min(left, framesAtOnce) * _channelCount);
    while (left > 0) {
        const uint64_t count = std::min(left, framesAtOnce);
        for (uint64_t frame = 0; frame < count; ++frame)
            std::copy_n(ring.frameToRead(frame), _channelCount, &samples[frame * _channelCount]);
        ring.commitRead(count);
        _write(samples, count);
        left -= count;
    }
}

void SoundFileWriter::writeSilence(uint64_t frameCount)
{
    const std::vector<float> samples(std::min(frameCount, framesAtOnce) * _channelCount);
    for (uint64_t left = _hasFailed ? 0 : frameCount; left > 0; left -= std::min(left, framesAtOnce))
        _write(samples, std::min(left, framesAtOnce));
}

void SoundFileWriter::_write(const std::vector<float>& samples, uint64_t frameCount)
{
    const uint64_t count = std::min(frameCount, _maxFrames - _framesWritten);
    errno = 0;
    const sf_count_t written = sf_writef_float(_file.get(), samples.data(), static_cast<sf_count_t>(count));
    const int reason = errno;
    const uint64_t before = _framesWritten;
    _framesWritten += static_cast<uint64_t>(std::max<sf_count_t>(written, 0));
    _hasFailed = static_cast<uint64_t>(written) != frameCount;
    if (_hasFailed && count < frameCount)
        throw ToolFailure(_name + ": is full: the limit of WAV is 4 GB; with --seconds, RF64 is used");
    if (_hasFailed)
        throw ToolFailure(_name + ": cannot be written: " + reasonText(reason, _file.get()));
    if (!_stream && before / _headerEvery != _framesWritten / _headerEvery)
        sf_command(_file.get(), SFC_UPDATE_HEADER_NOW, nullptr, 0);
}
