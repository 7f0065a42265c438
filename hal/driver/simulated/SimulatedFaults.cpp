#include "SimulatedFaults.h"

void SimulatedFaults::failReads(uint32_t selector, uint64_t nth, uint64_t count, HALStatus status)
{
    const std::scoped_lock lock(_mutex);
    _failing = {selector, 0};
    _failingFirst = nth;
    _failingCount = count;
    _failingStatus = status;
}

void SimulatedFaults::beforeRead(uint32_t selector, uint64_t nth, CXBlock<void()> script)
{
    const std::scoped_lock lock(_mutex);
    _scripted = {selector, 0};
    _scriptedRead = nth;
    _script = std::move(script);
}

void SimulatedFaults::failWrites(const std::string& uid, HALStatus status)
{
    const std::scoped_lock lock(_mutex);
    _writeStatus[uid] = status;
}

HALStatus SimulatedFaults::statusOfWrite(const std::string& uid)
{
    const std::scoped_lock lock(_mutex);
    const HALStatus status = _writeStatus[""];
    const auto own = _writeStatus.find(uid);
    return status || own == _writeStatus.end() ? status : own->second;
}

HALStatus SimulatedFaults::statusOfRead(uint32_t selector, bool isSize)
{
    HALStatus status = kAudioHardwareNoError;
    CXBlock<void()> script;
    {
        const std::scoped_lock lock(_mutex);
        if (_failingCount > 0) {
            const uint64_t read = _failing.next(selector);
            if (read >= _failingFirst && read - _failingFirst < _failingCount && read > 0)
                status = _failingStatus;
        }
        if (_script && !isSize && _scriptedRead > 0 && _scripted.next(selector) == _scriptedRead)
            std::swap(script, _script);
    }
    if (script)
        script();
    return status;
}

uint64_t SimulatedFaults::Count::next(uint32_t read)
{
    if (selector != read && selector != kAudioObjectPropertySelectorWildcard)
        return 0;
    return ++reads;
}
