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

/// The database of one suite: SQLite with a write-ahead log, one row a key.
/// A damaged file is set aside under another name and a new one begun. A file of another program or of a
/// later version, and a link, are left alone and not used. Where writing is not allowed, the database is only
/// read.
/// Threads:   unlocked; one thread at a time. Not in a child process after fork().
/// Real time: no; all of it works on files. Waits for other processes for maximumWait() at most.
/// Fails:     by returning false; problem() says why.
class DefaultsDatabase {
public:
    enum class Reading { Unchanged, Done, Failed };

    explicit DefaultsDatabase(std::string suiteName) : _suiteName(std::move(suiteName)) {}
    ~DefaultsDatabase() { close(); }
    DefaultsDatabase(const DefaultsDatabase&) = delete;
    DefaultsDatabase& operator=(const DefaultsDatabase&) = delete;

    /// Opens the database unless it is open and still the one under that name. A missing one is made, with
    /// its folder, if `whenMissing` says so. False when it cannot be read.
    bool open(WhenMissing whenMissing);
    void close();
    bool isOpen() const noexcept { return _connection != nullptr; }
    /// Whether there is a place for the file, and nothing in it.
    bool isMissing();
    /// Whether a damaged file was set aside since the last call.
    bool takeWasSetAside() noexcept { return std::exchange(_wasSetAside, false); }

    /// Brings `rows` up to date with the file, when another process has changed that since the last time.
    Reading read(DefaultsRows& rows);
    /// Begins to write: no other process can change anything until commit() or rollback().
    bool begin();
    bool isWriting() const noexcept { return _isInTransaction; }
    /// Writes the changes and ends the writing. On true they are on the disk; on false nothing was changed.
    bool commit(const DefaultsChanges& changes);
    void rollback();

    /// Why the last call failed, for people.
    const std::string& problem() const noexcept { return _problem; }
    /// Whether the last failure was another process's lock.
    bool wasLocked() const noexcept { return _wasLocked; }
    /// Whether the last failure may pass: a full disk does, a missing home directory does not.
    bool mayRecover() const noexcept { return _mayRecover; }
    /// The folder of the file, which need not exist; empty while there is no place for one.
    const std::string& folder() const noexcept { return _folder; }
    /// How long to wait for other processes, from now on.
    void setMaximumWait(std::chrono::milliseconds wait) noexcept { _maximumWait = wait; }

private:
    bool _locate(WhenMissing whenMissing);
    bool _open(WhenMissing whenMissing);
    bool _openFile(bool isWritable);
    bool _prepareSchema(bool isWritable);
    bool _fail(const char* step);
    bool _failWith(std::string problem, bool mayRecover = true);
    bool _isCorrupt() const noexcept;
    bool _setAside();
    bool _isStillInPlace() const;
    bool _isDatabaseStill();
    bool _execute(const char* statement);
    bool _number(const char* statement, int64_t& number);
    static int _waitForOthers(void* database, int tries);

    const std::string _suiteName;
    std::string _folder, _path; // empty while there is no place for them
    std::string _problem;
    bool _mayRecover = true;
    bool _wasLocked = false;
    bool _isWritable = false;
    bool _wasSetAside = false;
    bool _isInTransaction = false;
    int _lastCode = 0; // SQLite's, of the last failure
    std::chrono::milliseconds _maximumWait{3000};
    std::chrono::steady_clock::time_point _waitEnds;
    sqlite3* _connection = nullptr;
    struct stat _identity = {}; // of the file when it was opened
    int64_t _dataVersion = -1;  // when the rows were read
    sqlite3_stmt* _dataVersionStatement = nullptr;
};

} // namespace dxr
