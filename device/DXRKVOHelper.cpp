#include "DXRKVOHelper.h"

#include "DXRReadCheck.h"
#include "MainQueue.h"

#include <algorithm>
#include <iterator>
#include <numeric>
#include <optional>
#include <system_error>

namespace {

// After a failed read, a property is published again with growing delays; after the last, at its next update.
constexpr uint64_t firstRepeatNanoseconds = 20'000'000;
constexpr uint32_t maximumRepeats = 8;

/// Marks the calling thread in `field` while it exists.
class Mark {
public:
    explicit Mark(std::atomic<pthread_t>& field) : _field(field) { _field = pthread_self(); }
    ~Mark() { _field = 0; }
    Mark(const Mark&) = delete;
    Mark& operator=(const Mark&) = delete;

private:
    std::atomic<pthread_t>& _field;
};

} // namespace

CXRef<DXRKVOHelper> DXRKVOHelper::initWithObject(CXObject& object, std::span<const DXRKVOProperty> properties,
                                                 IsChanging isChanging)
{
    return CXRef<DXRKVOHelper>::adopt(new DXRKVOHelper(object, properties, isChanging));
}

DXRKVOHelper::DXRKVOHelper(CXObject& object, std::span<const DXRKVOProperty> properties,
                           IsChanging isChanging)
    : _obj(object), _properties(properties), _isChanging(isChanging), _lock(DXRRecursiveMutex::init())
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
    if (!_placeOf(key) || !block)
        return nullptr;
    const auto registration = Registration::init(key, std::move(block));
    _lock->execute([&] {
        _forgetEnded();
        _registrations.push_back(registration);
    });
    return CXRef<DXRKVOObservation>::adopt(new DXRKVOObservation(registration));
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

void DXRKVOHelper::updateAllValues()
{
    Pass all{Places(_properties.size())};
    std::iota(all.places.begin(), all.places.end(), uint8_t{0});
    _update(std::move(all));
}

void DXRKVOHelper::updateValueForKey(std::string_view key)
{
    if (const std::optional<uint8_t> place = _placeOf(key))
        _update({{*place}});
}

void DXRKVOHelper::updateValueForKeyIfChanged(std::string_view key)
{
    if (const std::optional<uint8_t> place = _placeOf(key))
        _update({{*place}, Reason::UpdateIfChanged});
}

void DXRKVOHelper::updateValuesForKeys(const Keys& keys)
{
    Pass pass;
    for (const std::string& key : keys) {
        if (const std::optional<uint8_t> place = _placeOf(key))
            pass.places.push_back(*place);
    }
    _update(std::move(pass));
}

std::optional<uint8_t> DXRKVOHelper::_placeOf(std::string_view key) const
{
    const auto found = std::ranges::find(_properties, key, &DXRKVOProperty::key);
    if (found == _properties.end())
        return std::nullopt;
    return static_cast<uint8_t>(found - _properties.begin());
}

void DXRKVOHelper::_update(Pass pass)
{
    if (pass.places.empty() || _processing.load(std::memory_order_relaxed) == pthread_self())
        return;
    if (!_isForMainQueue())
        return _run(pass);
    const bool isNew = _lock->execond([&] {
        if (std::ranges::find(_waiting, pass) != _waiting.end())
            return false; // when the waiting pass runs, it reads the present values, too
        _waiting.push_back(pass);
        return true;
    });
    if (isNew)
        dxr::MainQueue::shared().async(
            [self = CXRef(this), pass = std::move(pass)] { self->_runWaiting(pass); });
}

bool DXRKVOHelper::_isForMainQueue() const
{
    if (!dxr::MainQueue::shared().isCurrent())
        return true;
    const CXRef<CXObject> object = _isChanging ? _obj.lock() : nullptr;
    return object && _isChanging(*object);
}

void DXRKVOHelper::_runWaiting(const Pass& pass)
{
    const bool isNested = _processing.load(std::memory_order_relaxed) == pthread_self();
    _lock->execute([&] {
        std::erase(_waiting, pass); // a request from here on is a new pass
        if (isNested)
            _postponed.push_back(pass);
    });
    if (!isNested)
        _run(pass);
}

void DXRKVOHelper::_run(const Pass& first)
{
    const CXRef<CXObject> object = _obj.lock();
    if (!object)
        return;
    std::vector<Pass> next{first};
    while (!next.empty()) {
        for (const Pass& pass : next)
            _repeatLater(_publish(*object, pass), pass.reason);
        next.clear();
        _lock->execute([&] { next.swap(_postponed); });
    }
}

/// Returns the properties that could not be read.
DXRKVOHelper::Places DXRKVOHelper::_publish(CXObject& object, const Pass& pass)
{
    const Mark processing(_processing);
    const DXRKVONil nil = pass.reason == Reason::Update ? DXRKVONil::Announce : DXRKVONil::Compare;
    Places unread;
    for (const uint8_t place : pass.places) {
        if (!_publish(object, _properties[place], nil))
            unread.push_back(place);
    }
    return unread;
}

/// Returns false if the value could not be read. It is then neither announced nor compared.
bool DXRKVOHelper::_publish(CXObject& object, const DXRKVOProperty& property, DXRKVONil nil)
{
    const DXRReadCheck reads;
    std::optional<bool> isRead; // known before observers are called, which may read other values
    property.publish(object, nil, [&](DXRKVOChange change) {
        if (!isRead)
            isRead = !reads.hasFailed();
        if (*isRead)
            _announce(property, change);
        return *isRead;
    });
    return isRead ? *isRead : !reads.hasFailed();
}

/// Only one repeat waits at a time, so that memory does not grow while every update fails.
void DXRKVOHelper::_repeatLater(const Places& unread, Reason reason)
{
    if (unread.empty())
        return;
    uint64_t delay = 0;
    const bool isNew = _lock->execond([&] {
        if (reason != Reason::Repeat)
            _repeats = 0;
        else if (_repeats >= maximumRepeats)
            return false;
        delay = firstRepeatNanoseconds << _repeats;
        const bool isFirst = _unread.empty();
        std::ranges::copy_if(unread, std::back_inserter(_unread), [&](uint8_t place) {
            return std::ranges::find(_unread, place) == _unread.end();
        });
        return isFirst;
    });
    if (!isNew)
        return;
    try {
        dxr::MainQueue::shared().after(delay, [self = CXRef(this)] { self->_repeat(); });
    } catch (const std::system_error&) { // no thread can be created; the next update publishes the property
        _lock->execute([&] { _unread.clear(); });
    }
}

void DXRKVOHelper::_repeat()
{
    Pass pass{{}, Reason::Repeat};
    _lock->execute([&] {
        pass.places.swap(_unread);
        ++_repeats;
    });
    _runWaiting(pass);
}

void DXRKVOHelper::_announce(const DXRKVOProperty& property, DXRKVOChange change)
{
    std::vector<CXRef<Registration>> registrations;
    _lock->execute([&] {
        _forgetEnded();
        std::ranges::copy_if(_registrations, std::back_inserter(registrations),
                             [&](const auto& each) { return each->key == property.key(); });
    });
    std::optional<Mark> updating;
    if (change == DXRKVOChange::Will)
        updating.emplace(_updating);
    for (const CXRef<Registration>& registration : registrations) {
        // Read the block only now: an earlier observer may have ended this observation and destroyed what its
        // block uses.
        if (const DXRKVOObservation::Block block = registration->block())
            block(registration->key, change);
    }
}

void DXRKVOHelper::_forgetEnded()
{
    std::erase_if(_registrations, [](const auto& each) { return !each->block(); });
}
