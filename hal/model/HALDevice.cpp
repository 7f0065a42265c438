#include "HALDevice.h"

#include <algorithm>

namespace {

AudioObjectID newObjectID()
{
    static std::atomic<AudioObjectID> last{kAudioObjectSystemObject};
    return ++last;
}

} // namespace

CXRef<HALDevice> HALDevice::initWithDriver(const CXRef<HALDeviceDriver>& driver, HALNotifier& notifier)
{
    return CXRef<HALDevice>::adopt(new HALDevice(driver, notifier));
}

HALDevice::HALDevice(const CXRef<HALDeviceDriver>& driver, HALNotifier& notifier)
    : _objectID(newObjectID()), _driver(driver), _notifier(notifier),
      _table(HALIOProcTable::initWithDevice(_objectID, notifier))
{
    _table->setTiming(_state.nominalSampleRate, _state.bufferFrameSize); // setState() passes on changes only
}

// ---- State

HALDeviceState HALDevice::state() const
{
    const std::scoped_lock lock(_mutex);
    return _state;
}

std::vector<AudioObjectID> HALDevice::streamIDs() const
{
    std::vector<AudioObjectID> ids;
    const std::scoped_lock lock(_mutex);
    for (const HALDirectionState& side : _state.directions)
        for (const HALStreamState& stream : side.streams)
            ids.push_back(stream.objectID);
    return ids;
}

HALStatus HALDevice::readProperty(const AudioObjectPropertyAddress& address, HALPropertyWriter& writer) const
{
    const std::scoped_lock lock(_mutex);
    return halReadDevice(_view(), address, writer);
}

HALStatus HALDevice::readStreamProperty(AudioObjectID streamID, const AudioObjectPropertyAddress& address,
                                        HALPropertyWriter& writer) const
{
    const std::scoped_lock lock(_mutex);
    for (const HALDirection direction : halDirections) {
        const std::vector<HALStreamState>& streams = _state[direction].streams;
        const auto stream = std::ranges::find(streams, streamID, &HALStreamState::objectID);
        if (stream != streams.end())
            return halReadStream(_view(), direction, static_cast<size_t>(stream - streams.begin()), address,
                                 writer);
    }
    return kAudioHardwareBadObjectError;
}

void HALDevice::setState(HALDeviceState state)
{
    std::vector<HALObjectChange> changes;
    {
        const std::scoped_lock lock(_mutex);
        _numberStreams(state);
        std::swap(_state, state);
        const HALDeviceView before{_objectID, state, _runs > 0};
        changes = halChanges(before, _view());
        // A running driver sets new timing itself, and may do so before it reports it. A report of another
        // change, which still has the old timing, must not set that again.
        if (_state.nominalSampleRate != state.nominalSampleRate ||
            _state.bufferFrameSize != state.bufferFrameSize)
            _table->setTiming(_state.nominalSampleRate, _state.bufferFrameSize);
    }
    _post(changes);
}

void HALDevice::_numberStreams(HALDeviceState& state) const
{
    for (const HALDirection direction : halDirections) {
        const std::vector<HALStreamState>& old = _state[direction].streams;
        std::vector<HALStreamState>& streams = state[direction].streams;
        for (size_t index = 0; index < streams.size(); ++index)
            streams[index].objectID = index < old.size() ? old[index].objectID : newObjectID();
    }
}

void HALDevice::_changeRuns(int by)
{
    std::vector<HALObjectChange> changes;
    {
        const std::scoped_lock lock(_mutex);
        const HALDeviceView before = _view();
        _runs += by;
        changes = halChanges(before, _view());
    }
    _post(changes);
}

void HALDevice::_post(const std::vector<HALObjectChange>& changes)
{
    for (const HALObjectChange& each : changes)
        _notifier.post(each.objectID, each.addresses);
}

bool HALDevice::close()
{
    if (_isGone.exchange(true))
        return false;
    _table->close();
    return true;
}

// ---- IO

HALStatus HALDevice::createIOProc(const AudioDeviceIOBlock& block, AudioDeviceIOProcID& procID)
{
    procID = _table->create(block);
    if (procID)
        return kAudioHardwareNoError;
    return _isGone ? kAudioHardwareBadDeviceError : kAudioHardwareIllegalOperationError;
}

HALStatus HALDevice::start(AudioDeviceIOProcID procID, HALDeadline deadline)
{
    const std::scoped_lock lock(_ioMutex);
    if (!_table->start(procID))
        return _isGone ? kAudioHardwareBadDeviceError : kAudioHardwareIllegalOperationError;
    if (_isRunningIO)
        return kAudioHardwareNoError;
    if (const HALStatus status = _driver->startIO(_table, deadline)) {
        _table->stop(procID);
        return status;
    }
    if (_isGone) { // disappeared while IO was starting
        _driver->stopIO();
        return kAudioHardwareBadDeviceError;
    }
    _isRunningIO = true;
    _changeRuns(1);
    return kAudioHardwareNoError;
}

HALStatus HALDevice::stop(AudioDeviceIOProcID procID)
{
    const std::scoped_lock lock(_ioMutex);
    if (!_table->stop(procID))
        return kAudioHardwareNotRunningError;
    _stopIfIdle();
    return kAudioHardwareNoError;
}

HALStatus HALDevice::destroyIOProc(AudioDeviceIOProcID procID)
{
    const std::scoped_lock lock(_ioMutex);
    if (!_table->destroy(procID))
        return _isGone ? kAudioHardwareBadDeviceError : kAudioHardwareIllegalOperationError;
    _stopIfIdle();
    return kAudioHardwareNoError;
}

void HALDevice::_stopIfIdle()
{
    if (!_isRunningIO || _table->startedCount() > 0)
        return;
    _driver->stopIO();
    _isRunningIO = false;
    _changeRuns(-1);
}

void HALDevice::stopIfIdle()
{
    const std::scoped_lock lock(_ioMutex);
    _stopIfIdle();
}

void HALDevice::groupRunBegins()
{
    _changeRuns(1);
}

void HALDevice::groupRunEnds()
{
    _changeRuns(-1);
}
