#pragma once

#include "CXBlock.h"
#include "DefaultsDatabase.h"
#include "DefaultsRows.h"

#include <cstdint>
#include <map>
#include <mutex>
#include <string>
#include <utility>
#include <vector>

namespace platform {

/// Texts by key that all programs of the user share and that outlive them: one database a suite, in the user's data
/// directory. Keys are rows of their own, so that writers of different ones do not meet, and writers of one see each
/// other's values.
/// Threads:   any. Observers are called on the watcher's thread, with no lock held.
/// Real time: no. snapshot() takes some microseconds while nothing changes; update() waits for the disk and, for a
///            few seconds at the most, for writers in other processes.
/// Fails:     by keeping in memory what cannot be stored, and trying again with the next update and from time to
///            time. The log says so, once, until storing succeeds again.
class DefaultsSuite final : public CXObject {
public:
    /// The suite of that name: one object for the whole process, which lives as long as it.
    static CXRef<DefaultsSuite> suiteNamed(const std::string& name);

    /// What the suite holds now. While another thread of this process is writing: what it held before.
    CXRef<DefaultsSnapshot> snapshot();

    /// Decides on changes, knowing what the suite holds. It is called while no one else in any process can change
    /// that, must not use the suite, and may be called again, later too, when its changes could not be stored.
    using Edit = CXBlock<DefaultsChanges(const DefaultsSnapshot&)>;
    /// Carries out `edit`. The changes are on the disk when this returns true; on false they are in memory, and every
    /// reader of this process sees them.
    bool update(const Edit& edit);
    /// Tries to store what could not be stored before; whether everything is on the disk.
    bool synchronize();

    /// Calls `changed` after each change of the key's value, by anyone; several changes may be one call. The answer
    /// is for removeObserver(), after which one last call may still be running.
    uint64_t addObserver(const std::string& key, CXBlock<void()> changed);
    void removeObserver(uint64_t observer);

    enum class Retry { No, Yes };
    /// For the watcher: looks for changes of other processes, tries again to store what could not be stored if
    /// `retry` says so, and calls the observers of every key that changed since the last time. Whether there is
    /// something to try again later.
    bool announceChanges(Retry retry);
    /// The folder that changes of other processes show in; empty while there is none.
    std::string folder();

private:
    explicit DefaultsSuite(std::string name) : _database(std::move(name)) {}
    ~DefaultsSuite() override = default;

    bool _read();
    bool _begin();
    bool _storePending();
    void _keepInMemory(const Edit& edit);
    void _publish();
    void _complain();
    std::vector<CXBlock<void()>> _observersOfChanges();

    // Taken first, and held over work on the disk. Guards what is stored, and how.
    std::mutex _storeMutex;
    DefaultsDatabase _database;
    DefaultsRows _stored;       // as last read or written
    std::vector<Edit> _pending; // to be stored when that is possible again, in this order
    DefaultsChanges _unsaved;   // what they came to, over _stored
    bool _isInTrouble = false;

    // Held for moments only. Guards what the threads of this process see.
    std::mutex _mutex;
    CXRef<DefaultsSnapshot> _snapshot;  // _stored with _unsaved; none before the first use
    CXRef<DefaultsSnapshot> _announced; // what the observers know
    using Observers = std::map<uint64_t, CXBlock<void()>>;
    std::map<std::string, Observers, std::less<>> _observers; // by key
    std::map<uint64_t, std::string> _keyOfObserver;
    uint64_t _lastObserver = 0;
};

} // namespace platform
