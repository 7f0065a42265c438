#pragma once

#include "DefaultsRows.h"

#include <chrono>
#include <string>
#include <sys/stat.h>
#include <utility>

struct sqlite3;
struct sqlite3_stmt;

namespace platform {

/// The database of one suite: SQLite with a write-ahead log, one row a key.
/// A file that is no database any more is set aside under another name and a new one begun. One that is not ours, or
/// of a later version, is left alone and not used. Where writing is not allowed, what is there is read.
/// Threads:   unlocked; one thread at a time. Not in a child process after fork().
/// Real time: no; all of it works on files. Waits for other processes for maximumWait() at the most.
/// Fails:     by answering false; trouble() says why.
class DefaultsDatabase {
public:
    enum class Reading { Unchanged, Done, Failed };

    explicit DefaultsDatabase(std::string suiteName) : _suiteName(std::move(suiteName)) {}
    ~DefaultsDatabase() { close(); }
    DefaultsDatabase(const DefaultsDatabase&) = delete;
    DefaultsDatabase& operator=(const DefaultsDatabase&) = delete;

    /// Opens the database, made where it is missing, unless it is open and still the one under that name. False
    /// when it cannot be read.
    bool open();
    void close();
    bool isOpen() const noexcept { return _connection != nullptr; }
    /// Whether someone removed the file.
    bool isMissing() const;
    /// Whether a damaged file was set aside since the last time this was asked.
    bool takeWasSetAside() noexcept { return std::exchange(_wasSetAside, false); }

    /// Brings `rows` up to date with what is stored, when someone else has changed that since the last time.
    Reading read(DefaultsRows& rows);
    /// Begins to write: no other process can change anything until commit() or rollback().
    bool begin();
    bool isWriting() const noexcept { return _isInTransaction; }
    /// Writes the changes and ends the writing. When it answers true they are on the disk; else nothing was changed.
    bool commit(const DefaultsChanges& changes);
    void rollback();

    /// Why the last call failed, for people.
    const std::string& trouble() const noexcept { return _trouble; }
    /// Whether the last failure may pass: a full disk does, a missing home directory does not.
    bool mayRecover() const noexcept { return _mayRecover; }
    /// The folder that changes show in; empty while there is none.
    const std::string& folder() const noexcept { return _folder; }
    /// How long to wait for other processes, from now on.
    void setMaximumWait(std::chrono::milliseconds wait) noexcept { _maximumWait = wait; }

private:
    bool _open();
    bool _openFile(bool isWritable);
    bool _prepareSchema(bool isWritable);
    bool _fail(const char* step);
    bool _failWith(std::string trouble, bool mayRecover = true);
    bool _isCorrupt() const noexcept;
    bool _setAside();
    bool _isStillInPlace() const;
    bool _execute(const char* statement);
    bool _number(const char* statement, int64_t& number);
    static int _waitForOthers(void* database, int tries);

    const std::string _suiteName;
    std::string _folder, _path; // empty until there is a data directory
    std::string _trouble;
    bool _mayRecover = true;
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

} // namespace platform
