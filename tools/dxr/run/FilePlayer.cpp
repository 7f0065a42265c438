#include "FilePlayer.h"

#include <thread>

constexpr double ringSeconds = 2.0;

FilePlayer::FilePlayer(SoundFileReader file, const std::vector<DeviceSelection>& outputs,
                       std::vector<ChannelMap> maps)
    : _outputs(outputs), _maps(std::move(maps)), _file(std::move(file)),
      _ring(_file.channelCount(), static_cast<uint64_t>(ringSeconds * _file.sampleRate()))
{
    _meters.add("out", outputs);
    if (!_file.isStream())
        feed();
}

void FilePlayer::addTo(RunnerSession& session)
{
    if (_file.isStream())
        std::thread([self = CXRef<FilePlayer>(this)] { self->_readStream(); }).detach();
    session.add(_outputs, CXRef<FilePlayer>(this), &FilePlayer::_play);
}

void FilePlayer::_readStream() noexcept
{
    constexpr std::chrono::milliseconds pause(10);
    try {
        while (_file.fill(_ring))
            std::this_thread::sleep_for(pause);
    } catch (const std::bad_alloc&) {
        _failure = "out of memory";
    } catch (const std::exception& failure) {
        _failure = failure.what();
    }
    _hasFailed.store(!_failure.empty(), std::memory_order_release);
    _isFed.store(true, std::memory_order_release);
}

/// The blocks of a cycle run in the order of the outputs: the first reads frames from the ring for all
/// outputs, the last returns them to the writer.
void FilePlayer::_play(size_t output, uint64_t sampleTime, DXRBuffer& buffer) noexcept
{
    if (output == 0) {
        _isPlaying = _isOpen.load(std::memory_order_relaxed) && _endTime.load(std::memory_order_relaxed) == 0;
        _given = _isPlaying ? std::min<uint64_t>(buffer.frameCount(), _ring.readableFrames()) : 0;
    }
    const uint32_t channels = buffer.channelCount();
    const ChannelMap& map = _maps[output];
    buffer.mute();
    for (uint64_t frame = 0; frame < _given; ++frame) {
        const float* const from = _ring.frameToRead(frame);
        for (uint32_t channel = 0; channel < channels; ++channel)
            for (const ChannelShare& share : map[channel])
                buffer.samples()[frame * channels + channel] += share.gain * from[share.channel];
    }
    _meters.note(output, buffer);
    if (output + 1 == _outputs.size() && _isPlaying)
        _giveBack(sampleTime, buffer.frameCount());
}

void FilePlayer::_giveBack(uint64_t sampleTime, uint32_t frameCount) noexcept
{
    const bool isFed = _isFed.load(std::memory_order_acquire);
    _ring.commitRead(_given);
    _framesPlayed.fetch_add(_given, std::memory_order_relaxed);
    if (isFed && _ring.readableFrames() == 0)
        _endTime.store(sampleTime + _given, std::memory_order_relaxed);
    else if (_given < frameCount && !isFed)
        _underruns.fetch_add(1, std::memory_order_relaxed);
}
