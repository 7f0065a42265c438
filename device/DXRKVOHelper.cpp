#include "DXRKVOHelper.h"

#include "MainQueue.h"

#include <algorithm>

/// Says in one of the helper's fields, for as long as it lives, what the calling thread is doing.
class DXRKVOHelper::Mark {
public:
    Mark(DXRRecursiveMutex& lock, pthread_t& field) : _lock(lock), _field(field) { _set(pthread_self()); }
    ~Mark() { _set(0); }
    Mark(const Mark&) = delete;
    Mark& operator=(const Mark&) = delete;

private:
    void _set(pthread_t thread)
    {
        _lock.execute([&] { _field = thread; });
    }

    DXRRecursiveMutex& _lock;
    pthread_t& _field;
};

CXRef<DXRKVOHelper> DXRKVOHelper::initWithObject(CXObject& object, std::span<const DXRKVOProperty> properties)
{
    return CXRef<DXRKVOHelper>::adopt(new DXRKVOHelper(object, properties));
}

DXRKVOHelper::DXRKVOHelper(CXObject& object, std::span<const DXRKVOProperty> properties)
    : _obj(object), _properties(properties), _lock(DXRRecursiveMutex::init())
{}

DXRKVOHelper::Keys DXRKVOHelper::observableKeys() const
{
    Keys keys;
    if (!_obj.lock())
        return keys;
    keys.reserve(_properties.size());
    for (const DXRKVOProperty& property : _properties)
        keys.emplace_back(property.key());
    return keys;
}

CXRef<DXRKVOObservation> DXRKVOHelper::observe(const std::string& key, DXRKVOObservation::Block block)
{
    if (!_property(key) || !block)
        return nullptr;
    auto observation = CXRef<DXRKVOObservation>::adopt(new DXRKVOObservation(key, std::move(block)));
    _observers(); // forgets those that have ended
    _lock->execute([&] { _observations.emplace_back(observation); });
    return observation;
}

std::vector<CXRef<DXRKVOObservation>> DXRKVOHelper::observe(const Keys& keys,
                                                            const DXRKVOObservation::Block& block)
{
    std::vector<CXRef<DXRKVOObservation>> observations;
    for (const std::string& key : keys) {
        if (CXRef<DXRKVOObservation> one = observe(key, block))
            observations.push_back(std::move(one));
    }
    return observations;
}

void DXRKVOHelper::updateValuesForKeys(const Keys& keys)
{
    if (keys.empty() || _lock->execond([&] { return _processing == pthread_self(); }))
        return;
    if (platform::MainQueue::shared().isCurrent())
        return _pass(keys);
    const bool isNew = _lock->execond([&] {
        if (std::ranges::find(_waiting, keys) != _waiting.end())
            return false; // it reads the values when it runs, these included
        _waiting.push_back(keys);
        return true;
    });
    if (isNew)
        platform::MainQueue::shared().async([self = CXRef(this), keys] { self->_runWaiting(keys); });
}

bool DXRKVOHelper::isUpdateInProgress() const
{
    return _lock->execond([&] { return _updating == pthread_self(); });
}

const DXRKVOProperty* DXRKVOHelper::_property(std::string_view key) const
{
    const auto found = std::ranges::find(_properties, key, &DXRKVOProperty::key);
    return found == _properties.end() ? nullptr : &*found;
}

void DXRKVOHelper::_runWaiting(const Keys& keys)
{
    const bool isNested = _lock->execond([&] {
        std::erase(_waiting, keys); // from here on, whoever asks again is heard again
        if (_processing == pthread_self())
            _postponed.push_back(keys);
        return _processing == pthread_self();
    });
    if (!isNested)
        _pass(keys);
}

void DXRKVOHelper::_pass(const Keys& keys)
{
    const CXRef<CXObject> object = _obj.lock();
    if (!object)
        return;
    std::vector<Keys> next{keys};
    while (!next.empty()) {
        {
            const Mark processing(*_lock, _processing);
            for (const Keys& pass : next) {
                for (const std::string& key : pass) {
                    if (const DXRKVOProperty* property = _property(key))
                        property->publish(*object,
                                          [&](DXRKVOChange change) { _announce(*property, change); });
                }
            }
        }
        next.clear();
        _lock->execute([&] { next.swap(_postponed); });
    }
}

void DXRKVOHelper::_announce(const DXRKVOProperty& property, DXRKVOChange change)
{
    std::vector<CXRef<DXRKVOObservation>> observers = _observers();
    std::erase_if(observers, [&](const auto& each) { return each->key() != property.key(); });
    std::optional<Mark> updating;
    if (change == DXRKVOChange::Will)
        updating.emplace(*_lock, _updating);
    for (const CXRef<DXRKVOObservation>& observer : observers)
        observer->_call(change);
}

std::vector<CXRef<DXRKVOObservation>> DXRKVOHelper::_observers()
{
    std::vector<CXRef<DXRKVOObservation>> observers; // dropped by the caller, who does not hold the lock
    _lock->execute([&] {
        std::erase_if(_observations, [&](const auto& each) {
            CXRef<DXRKVOObservation> observer = each.lock();
            const bool isGone = !observer;
            if (!isGone)
                observers.push_back(std::move(observer));
            return isGone;
        });
    });
    return observers;
}
