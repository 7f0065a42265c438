#pragma once

#include "CXBlock.h"
#include "DefaultsDatabase.h"
#include "DefaultsRows.h"
#include "DefaultsWatcher.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace dxr {

/// Texts by key that all programs of the user share and that outlive them: one database a suite, in the
/// user's data directory. Keys are rows of their own: writers of different keys do not conflict, and writers
/// of one see each other's values. The watcher keeps the memory of this process up to date.
/// Threads:   any. Observers are called on the watcher's thread, with no lock held.
/// Real time: no. snapshot() takes some microseconds, the first one some milliseconds; update() waits for the
///            disk and, for a few seconds at most, for writers in other processes.
/// Fails:     by keeping in memory what cannot be stored, and trying again with the next update and from time
///            to time. Logged once, until storing succeeds again.
class DefaultsSuite final : public DefaultsWatcher::Client {
public:
    /// The suite of that name: one object for the whole process, which lives as long as it.
    static CXRef<DefaultsSuite> suiteNamed(const std::string& name);

    /// Reads the store the first time; makes nothing there. Returns whether it could be read so far: when it
    /// is locked just now, that happens a little later.
    bool load();
    /// The content of the suite in memory, which follows the store within moments.
    CXRef<DefaultsSnapshot> snapshot();

    /// Decides on changes, knowing what the suite holds. It is called while no one else in any process can
    /// change that, must not use the suite, and may be called again, later too, when its changes could not be
    /// stored.
    using Edit = CXBlock<DefaultsChanges(const DefaultsSnapshot&)>;
    /// Carries out `edit`. The changes are on the disk when this returns true; on false they are in memory,
    /// and every reader of this process sees them.
    bool update(const Edit& edit);
    /// Tries to store what could not be stored before; whether everything is on the disk.
    bool synchronize();

    /// Calls `changed` after each change of the key's value, by anyone, and when the store could be read only
    /// after this was called; several changes may be one call. The result is for removeObserver(), after
    /// which one last call may still be running.
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
    bool _begin();
    bool _storePending();
    void _keepInMemory(const Edit& edit);
    void _publish();
    void _complain();
    std::vector<CXBlock<void()>> _observersOfChanges();

    // Taken first, and held over work on the disk: never by a reader after the first. Guards what is stored,
    // and how.
    std::mutex _storeMutex;
    DefaultsDatabase _database;
    DefaultsRows _stored;       // as last read or written
    std::vector<Edit> _pending; // to be stored when that is possible again, in this order
    DefaultsChanges _unsaved;   // what they came to, over _stored
    bool _isFailing = false;    // logged
    bool _isRead = false;       // the store could be read at least once
    bool _isUnreadable = false; // the last reading failed, and not for a lock

    // Never held over work on the disk. Guards what the threads of this process see.
    std::mutex _mutex;
    CXRef<DefaultsSnapshot> _snapshot;  // _stored with _unsaved; none before the first use
    bool _isLoaded = false;             // _isRead, when the snapshot was made
    CXRef<DefaultsSnapshot> _announced; // what the observers know
    bool _isLoadAnnounced = false;
    using Observers = std::map<uint64_t, CXBlock<void()>>;
    std::map<std::string, Observers, std::less<>> _observers; // by key
    std::map<uint64_t, std::string> _keyOfObserver;
    uint64_t _lastObserver = 0;
};

} // namespace dxr
