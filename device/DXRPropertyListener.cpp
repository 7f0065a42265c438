#include "DXRPropertyListener.h"

CXRef<DXRPropertyListener> DXRPropertyListener::initWithObjectID(AudioObjectID objectID,
                                                                 const AudioObjectPropertyAddress* addr,
                                                                 CXRef<dxr::WorkQueue> queue,
                                                                 const CXRef<CXObject>& target, Block block)
{
    return CXRef<DXRPropertyListener>::adopt(new DXRPropertyListener(
        objectID, addr ? *addr : AudioObjectPropertyAddress{}, std::move(queue), target, std::move(block)));
}

DXRPropertyListener::DXRPropertyListener(AudioObjectID objectID, const AudioObjectPropertyAddress& addr,
                                         CXRef<dxr::WorkQueue> queue, const CXRef<CXObject>& target,
                                         Block block)
    : _queue(std::move(queue)), _target(target), _block(std::move(block)), _objectID(objectID), _addr(addr)
{}

DXRPropertyListener::~DXRPropertyListener()
{
    stop();
}

bool DXRPropertyListener::start()
{
    AudioObjectPropertyListenerBlock listener;
    {
        const std::scoped_lock lock(_mutex);
        if (_listener)
            return true;
        _listener = [weak = CXWeak(*this)](uint32_t count, const AudioObjectPropertyAddress* addresses) {
            if (const CXRef<DXRPropertyListener> self = weak.lock())
                self->_deliver(count, addresses);
        };
        listener = _listener;
    }
    const HALStatus status = AudioObjectAddPropertyListenerBlock(_objectID, &_addr, _queue, listener);
    bool isWanted = true;
    {
        const std::scoped_lock lock(_mutex);
        isWanted = _listener == listener; // false if it was stopped before it was added
        if (isWanted && status != kAudioHardwareNoError)
            _listener = nullptr;
    }
    if (!isWanted && status == kAudioHardwareNoError)
        AudioObjectRemovePropertyListenerBlock(_objectID, &_addr, _queue, listener);
    return status == kAudioHardwareNoError;
}

void DXRPropertyListener::stop()
{
    AudioObjectPropertyListenerBlock listener;
    {
        const std::scoped_lock lock(_mutex);
        std::swap(listener, _listener);
    }
    if (listener)
        AudioObjectRemovePropertyListenerBlock(_objectID, &_addr, _queue, listener);
}

void DXRPropertyListener::_deliver(uint32_t count, const AudioObjectPropertyAddress* addresses) const
{
    const CXRef<CXObject> target = _target.lock();
    if (!target || !_block)
        return;
    for (uint32_t i = 0; i < count; ++i)
        _block(target, addresses + i);
}
