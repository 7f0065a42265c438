#pragma once

#include "DataFolder.h"
#include "DefaultsRows.h"

#include <chrono>
#include <string>
#include <sys/stat.h>
#include <utility>

struct sqlite3;
struct sqlite3_stmt;

namespace dxr {

/// The database of one suite: SQLite with a write-ahead log, one row per key. A damaged file is renamed and a
/// new one created. A symbolic link and a file of another program or a later version are neither changed nor
/// used. A file that may not be written is opened read-only.
/// Threads:   not synchronised; one thread at a time. Must not be used in a child process after fork().
/// Real time: no; every function accesses files. Waits for other processes at most as long as
///            setMaximumWait() allows.
/// Fails:     by returning false; problem() returns the reason.
class DefaultsDatabase {
public:
    enum class Reading { Unchanged, Done, Failed };

    explicit DefaultsDatabase(std::string suiteName) : _suiteName(std::move(suiteName)) {}
    ~DefaultsDatabase() { close(); }
    DefaultsDatabase(const DefaultsDatabase&) = delete;
    DefaultsDatabase& operator=(const DefaultsDatabase&) = delete;

    /// Opens the database, unless it is open and its path still refers to the same file. With
    /// WhenMissing::Make, creates a missing file and its folder. Returns false if the file cannot be read.
    bool open(WhenMissing whenMissing);
    void close();
    bool isOpen() const noexcept { return _connection != nullptr; }
    /// Returns true if the folder's path is valid and the file does not exist, unless it was damaged and set
    /// aside: then open() creates the next one.
    bool isMissing();
    /// Returns true if this or another process has set the damaged file aside since the last call of
    /// takeWasSetAside().
    bool wasSetAside() const noexcept { return _wasSetAside; }
    bool takeWasSetAside() noexcept { return std::exchange(_wasSetAside, false); }

    /// Updates `rows` from the file if another process has changed it since the last call.
    Reading read(DefaultsRows& rows);
    /// Begins a write transaction: no other process can change the database until commit() or rollback().
    bool begin();
    bool isWriting() const noexcept { return _isInTransaction; }
    /// Writes `changes` and ends the transaction. Returns true once they are on the disk; on false nothing
    /// was changed.
    bool commit(const DefaultsChanges& changes);
    void rollback();

    /// Why the last call failed, as text for the user.
    const std::string& problem() const noexcept { return _problem; }
    /// Whether the last call failed because another process held a lock.
    bool wasLocked() const noexcept { return _wasLocked; }
    /// Whether trying again may succeed: it may after a full disk, but not after a missing home directory.
    bool mayRecover() const noexcept { return _mayRecover; }
    /// The folder of the file; it may not exist. Empty if no valid path is known.
    const std::string& folder() const noexcept { return _folder; }
    /// Sets how long later calls wait for other processes.
    void setMaximumWait(std::chrono::milliseconds wait) noexcept { _maximumWait = wait; }

private:
    bool _locate(WhenMissing whenMissing);
    bool _open(WhenMissing whenMissing);
    bool _openFile(bool isWritable);
    bool _isForUs(bool* isEmpty = nullptr);
    bool _prepareSchema(bool isWritable);
    bool _fail(const char* step);
    bool _failWith(std::string problem, bool mayRecover = true);
    bool _isCorrupt() const noexcept;
    bool _setAside();
    bool _make();
    bool _isOpenedFile(const std::string& path) const;
    bool _isSetAsideByOther() const;
    bool _isDatabaseStill();
    bool _execute(const char* statement);
    bool _number(const char* statement, int64_t& number);
    static int _waitForOthers(void* database, int tries);

    const std::string _suiteName;
    std::string _folder, _path; // empty if no valid path is known
    std::string _problem;
    bool _mayRecover = true;
    bool _wasLocked = false;
    bool _isWritable = false;
    bool _wasSetAside = false;
    bool _isInTransaction = false;
    int _lastCode = 0; // SQLite's result code of the last failure
    std::chrono::milliseconds _maximumWait{3000};
    std::chrono::steady_clock::time_point _waitEnds;
    sqlite3* _connection = nullptr;
    struct stat _identity = {}; // of the file that was opened last; st_nlink is 0 before
    int64_t _dataVersion = -1;  // when the rows were read
    sqlite3_stmt* _dataVersionStatement = nullptr;
};

} // namespace dxr
