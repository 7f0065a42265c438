#include "FileRecorder.h"

void FileRecorder::addTo(RunnerSession& session)
{
    session.setRecords([self = CXRef<FileRecorder>(this)](std::span<const DXRCycleRecord> records) {
        for (const DXRCycleRecord& record : records)
            self->_note(record);
    });
    session.add(_inputs, CXRef<FileRecorder>(this), &FileRecorder::_hear);
}

/// The blocks of a cycle run in the order of the inputs; the last one stores the frames of all inputs.
void FileRecorder::_hear(size_t input, uint64_t sampleTime, DXRBuffer& buffer) noexcept
{
    _heard.note(input, sampleTime, buffer);
    _meters.note(input, buffer);
    if (input + 1 == _inputs.size() && _isOpen.load(std::memory_order_acquire))
        _keep(sampleTime, buffer.frameCount());
}

/// Finds gaps: the device's sample time jumps, or a context begins after the last cycle. Late is no gap.
void FileRecorder::_note(const DXRCycleRecord& record)
{
    if (record.event != DXRCycleRecord::Event::Cycle)
        return;
    const DXRCycleRecord last = std::exchange(_last, record);
    if (!isOpen() || last.dueTicks == 0 || record.dueTicks == 0 ||
        last.droppedRecords != record.droppedRecords)
        return;
    const double cycleSeconds = secondsOf(last.deadlineTicks - last.dueTicks);
    double seconds = 0.0;
    if (last.contextNumber != record.contextNumber)
        seconds = secondsOf(record.dueTicks - last.dueTicks) - cycleSeconds;
    else if (record.deviceSampleTime > last.deviceSampleTime + last.frameCount)
        seconds = static_cast<double>(record.deviceSampleTime - last.deviceSampleTime - last.frameCount) *
                  cycleSeconds / last.frameCount;
    const auto frames = static_cast<uint64_t>(std::llround(std::max(0.0, seconds) * _sampleRate));
    if (frames > 0)
        _gaps.push_back({record.sampleTime, frames});
}

void FileRecorder::writeTo(SoundFileWriter& file, uint64_t maxFrames, bool isEnd)
{
    const uint64_t first = _firstSampleTime.load(std::memory_order_acquire);
    if (first == UINT64_MAX)
        return;
    const auto writeUpTo = [&](uint64_t sampleTime) {
        const uint64_t before = file.framesWritten(),
                       wanted = sampleTime - std::min(sampleTime, first + _framesTaken);
        file.drain(*_ring, std::min(wanted, maxFrames - before));
        _framesTaken += file.framesWritten() - before;
    };
    for (; !_gaps.empty(); _gaps.pop_front()) {
        writeUpTo(_gaps.front().sampleTime);
        if (_gaps.front().sampleTime > first + _framesTaken && !isEnd)
            return; // the gap is not reached yet, or the ring or file was full before it
        const uint64_t before = file.framesWritten();
        if (_gaps.front().sampleTime > first)
            file.writeSilence(std::min(_gaps.front().frameCount, maxFrames - before));
        _silentFrames += file.framesWritten() - before;
    }
    writeUpTo(isEnd ? UINT64_MAX : _last.sampleTime + _last.runnerFrameCount);
}

void FileRecorder::_keep(uint64_t sampleTime, uint32_t frameCount) noexcept
{
    const uint64_t kept = std::min<uint64_t>(frameCount, _ring->writableFrames());
    if (_firstSampleTime.load(std::memory_order_relaxed) == UINT64_MAX)
        _firstSampleTime.store(sampleTime, std::memory_order_release);
    for (uint32_t channel = 0; channel < channelCount(); ++channel) {
        const auto from = _heard.channel(channel, sampleTime, frameCount);
        for (uint64_t frame = 0; frame < kept; ++frame)
            _ring->frameToWrite(frame)[channel] = from.samples[frame * from.stride];
    }
    _ring->commitWrite(kept);
    _droppedFrames.fetch_add(frameCount - kept, std::memory_order_relaxed);
}
