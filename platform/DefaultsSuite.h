#pragma once

#include "CXBlock.h"
#include "DefaultsDatabase.h"
#include "DefaultsRows.h"
#include "DefaultsWatcher.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <set>
#include <string>
#include <utility>
#include <vector>

namespace dxr {

/// Strings by key that persist and that all programs of the user share. Each suite is one database in the
/// user's data directory. Each key is a separate row: writers of different keys do not conflict, and writers
/// of the same key see each other's values. The watcher keeps this process's copy in memory up to date.
/// Threads:   any. Observers are called on the watcher's thread, with no lock held.
/// Real time: no. snapshot() takes some microseconds; the first call takes some milliseconds. update() waits
///            for the disk and, for a few seconds at most, for writers in other processes.
/// Fails:     by keeping unsaved changes in memory and trying to store them with the next update and at
///            intervals. The failure is logged once until storing succeeds again.
class DefaultsSuite final : public DefaultsWatcher::Client {
public:
    /// Returns the suite of that name. The process has one object per name and never destroys it.
    static CXRef<DefaultsSuite> suiteNamed(const std::string& name);

    /// Reads the store on the first call; creates no file. Returns true if the store has been read. If it is
    /// locked, it is read shortly afterwards.
    bool load();
    /// Returns the content of the suite in memory, which follows changes of the store within moments.
    CXRef<DefaultsSnapshot> snapshot();

    /// Computes the changes from the suite's content. It runs while no other thread or process can change the
    /// content. It must not use the suite, and may be called again, even much later, if its changes could not
    /// be stored.
    using Edit = CXBlock<DefaultsChanges(const DefaultsSnapshot&)>;
    /// Applies `edit`. Returns true once the changes are on the disk. On false they are in memory, where all
    /// readers of this process see them.
    bool update(const Edit& edit);
    /// Reads the store, and tries to store the changes that could not be stored before. Returns true if the
    /// store can be read and all changes are on the disk.
    bool synchronize();

    /// Calls `changed` after each change of the key's value, by any process, and when the store is first read
    /// after this call; one call may report several changes. Returns an ID for removeObserver(). One last
    /// call may still be running after removeObserver() returns.
    uint64_t addObserver(const std::string& key, CXBlock<void()> changed);
    void removeObserver(uint64_t observer);

private:
    using Again = DefaultsWatcher::Again;
    using Retry = DefaultsWatcher::Retry;

    Again announceChanges(Retry retry) override;
    std::string folder() override;

    explicit DefaultsSuite(std::string name) : _database(std::move(name)) {}
    ~DefaultsSuite() override = default;

    void _loadFirst();
    bool _read();
    DefaultsRows _known() const;
    bool _hasUnsaved() const noexcept { return !_pending.empty() || !_restored.empty(); }
    bool _begin();
    bool _storePending();
    void _keepInMemory(const Edit& edit);
    void _publish();
    void _complain();
    std::vector<CXBlock<void()>> _observersOfChanges();

    // Acquired before _mutex and held during disk access; readers acquire it only for the first load. Guards
    // the database and the unsaved changes.
    std::mutex _storeMutex;
    DefaultsDatabase _database;
    DefaultsRows _stored;       // as last read or written
    DefaultsRows _restored;     // unsaved rows of a damaged file, which _stored lacks
    std::vector<Edit> _pending; // unsaved edits, oldest first
    DefaultsChanges _unsaved;   // the result of _pending, applied over _stored and _restored
    bool _isFailing = false;    // the failure was logged
    bool _isRead = false;       // the store was read at least once
    bool _isUnreadable = false; // the last read failed, and not because of a lock

    // Never held during disk access. Guards the data that the threads of this process see.
    std::mutex _mutex;
    CXRef<DefaultsSnapshot> _snapshot; // _stored with all unsaved; null before the first use
    bool _isLoaded = false;            // the value of _isRead when the snapshot was made
    bool _isLoadAnnounced = false;
    std::set<std::string> _changedKeys; // observed, and changed since observers were last called
    using Observers = std::map<uint64_t, CXBlock<void()>>;
    std::map<std::string, Observers, std::less<>> _observers; // by key
    std::map<uint64_t, std::string> _keyOfObserver;
    uint64_t _lastObserver = 0;
};

} // namespace dxr
