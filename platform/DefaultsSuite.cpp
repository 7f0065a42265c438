#include "DefaultsSuite.h"

#include "DefaultsWatcher.h"
#include "LogSink.h"

#include <thread>

namespace dxr {

namespace {

using namespace std::chrono_literals;

constexpr std::chrono::milliseconds patience = 3s;
// After a failure, and for readers, which continue without the store.
constexpr std::chrono::milliseconds shortPatience = 50ms;

DefaultsRows merged(const DefaultsRows& stored, const DefaultsChanges& unsaved)
{
    DefaultsRows rows = stored;
    for (const auto& [key, value] : unsaved) {
        if (!value)
            rows.erase(key);
        else if (CXRef<DefaultsRow>& row = rows[key]; !row || row->value() != *value)
            row = DefaultsRow::initWithValue(*value);
    }
    return rows;
}

} // namespace

CXRef<DefaultsSuite> DefaultsSuite::suiteNamed(const std::string& name)
{
    struct Suites {
        std::mutex mutex;
        std::map<std::string, CXRef<DefaultsSuite>> byName;
    };
    static auto& suites = *new Suites; // never destroyed: the watcher's thread always uses them
    const std::lock_guard lock(suites.mutex);
    CXRef<DefaultsSuite>& suite = suites.byName[name];
    if (!suite)
        suite = CXRef<DefaultsSuite>::adopt(new DefaultsSuite(name));
    return suite;
}

bool DefaultsSuite::load()
{
    (void)snapshot();
    const std::lock_guard lock(_mutex);
    return _isLoaded;
}

CXRef<DefaultsSnapshot> DefaultsSuite::snapshot()
{
    DefaultsWatcher& watcher = DefaultsWatcher::shared();
    bool isFirst = false;
    {
        const std::lock_guard lock(_mutex);
        if (_snapshot && watcher.isServing())
            return _snapshot;
        isFirst = !_snapshot;
    }
    if (isFirst)
        _loadFirst();
    watcher.follow(CXRef<DefaultsSuite>(this)); // with later reads again if it cannot start its thread
    const std::lock_guard lock(_mutex);
    return _snapshot;
}

void DefaultsSuite::_loadFirst()
{
    std::unique_lock store(_storeMutex, std::try_to_lock);
    const auto end = std::chrono::steady_clock::now() + shortPatience;
    while (!store.owns_lock() && std::chrono::steady_clock::now() < end) { // another thread is storing
        std::this_thread::sleep_for(1ms);
        (void)store.try_lock();
    }
    if (!store.owns_lock()) {
        const std::lock_guard lock(_mutex);
        if (!_snapshot)
            _snapshot = DefaultsSnapshot::initWithRows({});
    } else if (!_isRead) {
        _database.setMaximumWait(shortPatience);
        if (!_read() && _isUnreadable)
            _complain();
    }
}

bool DefaultsSuite::update(const Edit& edit)
{
    (void)load(); // changes that cannot be stored are merged with the stored rows
    const std::lock_guard store(_storeMutex);
    _database.setMaximumWait(_isFailing ? shortPatience : patience);
    _pending.push_back(edit);
    const bool isStored = _storePending();
    if (!isStored) {
        _keepInMemory(edit);
        _publish();
        _complain();
    }
    DefaultsWatcher::shared().wake();
    return isStored;
}

bool DefaultsSuite::synchronize()
{
    (void)load(); // the store is followed from the first use
    const std::lock_guard store(_storeMutex);
    _database.setMaximumWait(_isFailing ? shortPatience : patience);
    const bool isReadable = _hasUnsaved() || _read(); // storing reads, too
    return isReadable && _storePending();
}

DefaultsWatcher::Again DefaultsSuite::announceChanges(Retry retry)
{
    Again again = Again::Never;
    {
        const std::lock_guard store(_storeMutex);
        _database.setMaximumWait(shortPatience);
        const size_t restored = _restored.size();
        // Opening an unreadable file is itself an event in the folder; reading after each event would repeat
        // forever.
        const bool isRead = (retry == Retry::Yes || !_isUnreadable) && _read();
        if (retry == Retry::Yes || _restored.size() > restored) // at once if the file was damaged
            _storePending();
        if (!isRead && !_isUnreadable)
            again = Again::Soon;
        else if ((_isUnreadable || _hasUnsaved()) && _database.mayRecover())
            again = Again::Later;
    }
    for (const CXBlock<void()>& changed : _observersOfChanges())
        changed();
    return again;
}

std::string DefaultsSuite::folder()
{
    const std::lock_guard store(_storeMutex);
    return _database.folder();
}

/// Updates the rows from the store. Returns false if the store cannot be read.
bool DefaultsSuite::_read()
{
    bool isRead = false;
    if (_database.isMissing()) { // nothing was stored yet, or the file was removed on purpose
        _database.close();
        _stored.clear();
        isRead = true;
    }
    for (int attempt = 0; !isRead && attempt < 2 && _database.open(WhenMissing::Leave); ++attempt) {
        const DefaultsRows known = _database.wasSetAside() ? _stored : DefaultsRows();
        const DefaultsDatabase::Reading reading = _database.read(_stored);
        if (reading == DefaultsDatabase::Reading::Unchanged) {
            _isUnreadable = false;
            return true;
        }
        isRead = reading == DefaultsDatabase::Reading::Done;
        if (isRead && _database.takeWasSetAside())
            _restored.insert(known.begin(), known.end());
        if (!isRead && _database.isOpen())
            break; // only a damaged file, which read() has closed, is tried again
    }
    std::erase_if(_restored, // what other processes have written is later
                  [this](const auto& row) { return _stored.contains(row.first); });
    _isRead = _isRead || isRead;
    _isUnreadable = !isRead && !_database.wasLocked();
    _publish();
    return isRead;
}

/// Returns the rows before any unsaved edits.
DefaultsRows DefaultsSuite::_known() const
{
    DefaultsRows rows = _stored;
    rows.insert(_restored.begin(), _restored.end());
    return rows;
}

/// Begins a write transaction and brings _stored up to date.
bool DefaultsSuite::_begin()
{
    for (int attempt = 0; attempt < 3; ++attempt) {
        const bool hasBegun = _database.begin();
        if (hasBegun && _read() && _database.isWriting())
            return true;
        // Tries again if the file was damaged or removed: it has been closed or replaced by now.
        const bool isWorthAnother = hasBegun ? !_database.isWriting() : !_database.isOpen();
        _database.rollback();
        if (!isWorthAnother)
            break;
    }
    return false;
}

/// Adds the rows of a damaged file to the stored ones and applies all unsaved edits. Returns true if all
/// changes are on the disk.
bool DefaultsSuite::_storePending()
{
    for (int attempt = 0; attempt < 2; ++attempt) {
        if (!_hasUnsaved())
            return true;
        if (!_begin())
            return false;
        DefaultsChanges changes;
        for (const auto& [key, row] : _restored)
            changes.emplace(key, row->value());
        DefaultsRows rows = _known();
        for (const Edit& edit : _pending) {
            DefaultsChanges more = edit(*DefaultsSnapshot::initWithRows(rows));
            rows = merged(rows, more);
            more.merge(changes); // later changes replace earlier ones
            changes = std::move(more);
        }
        bool isStored = changes.empty();
        if (isStored)
            _database.rollback();
        else
            isStored = _database.commit(changes);
        if (isStored) {
            _stored = std::move(rows);
            _restored.clear();
            _pending.clear();
            _unsaved.clear();
            _isFailing = false;
            _publish();
            return true;
        }
        if (_database.isOpen())
            return false; // only a damaged file is tried again
    }
    return false;
}

void DefaultsSuite::_keepInMemory(const Edit& edit)
{
    DefaultsChanges changes = edit(*DefaultsSnapshot::initWithRows(merged(_known(), _unsaved)));
    changes.merge(_unsaved);
    _unsaved = std::move(changes);
    constexpr size_t most = 1000;
    if (_pending.size() >
        // The resulting changes take less memory, but overwrite changes that other processes make meanwhile.
        most)
        _pending.assign(1, [unsaved = _unsaved](const DefaultsSnapshot&) { return unsaved; });
}

/// Makes the stored rows with the unsaved changes visible to the threads of this process. Notes the observed
/// keys that change: a change may be undone before the watcher calls the observers, but it has been visible.
void DefaultsSuite::_publish()
{
    CXRef<DefaultsSnapshot> snapshot = DefaultsSnapshot::initWithRows(merged(_known(), _unsaved));
    const std::lock_guard lock(_mutex);
    for (const auto& [key, observers] : _observers) {
        const CXRef<DefaultsRow> before = _snapshot->row(key), now = snapshot->row(key);
        if (before != now && !(before && now && before->value() == now->value()))
            _changedKeys.insert(key);
    }
    _snapshot = std::move(snapshot);
    _isLoaded = _isRead;
}

void DefaultsSuite::_complain()
{
    if (!std::exchange(_isFailing, true))
        LogSink::log("Device settings are not kept, and last as long as this process: " +
                     _database.problem());
}

uint64_t DefaultsSuite::addObserver(const std::string& key, CXBlock<void()> changed)
{
    (void)load(); // so that only later changes are reported
    uint64_t observer = 0;
    {
        const std::lock_guard lock(_mutex);
        if (_observers.empty())
            _isLoadAnnounced = _isLoaded;
        observer = ++_lastObserver;
        _observers[key].emplace(observer, std::move(changed));
        _keyOfObserver.emplace(observer, key);
    }
    return observer;
}

void DefaultsSuite::removeObserver(uint64_t observer)
{
    CXBlock<void()> removed; // destroyed after the lock is released
    const std::lock_guard lock(_mutex);
    const auto key = _keyOfObserver.find(observer);
    if (key == _keyOfObserver.end())
        return;
    const auto observers = _observers.find(key->second);
    const auto found = observers->second.find(observer);
    removed = found->second;
    observers->second.erase(found);
    if (observers->second.empty())
        _observers.erase(observers);
    _keyOfObserver.erase(key);
}

std::vector<CXBlock<void()>> DefaultsSuite::_observersOfChanges()
{
    const std::lock_guard lock(_mutex);
    std::vector<CXBlock<void()>> toCall;
    const bool isLoadedNow = _isLoaded && !std::exchange(_isLoadAnnounced, _isLoaded);
    const std::set<std::string> changedKeys = std::exchange(_changedKeys, {});
    for (const auto& [key, observers] : _observers) {
        if (isLoadedNow || changedKeys.contains(key))
            for (const auto& [observer, changed] : observers)
                toCall.push_back(changed);
    }
    return toCall;
}

} // namespace dxr
