#include "DefaultsDatabase.h"

#include "LogSink.h"

#include <array>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <filesystem>
#include <memory>
#include <random>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <system_error>
#include <thread>
#include <unistd.h>

namespace dxr {

namespace {

using Clock = std::chrono::steady_clock;

constexpr int64_t applicationID = 0x64787253; // "dxrS", SQLite's application_id in the file's header
constexpr int64_t schemaVersion = 1;
constexpr std::string_view damagedMark = ".damaged-"; // in the names of files that were set aside
constexpr std::string_view databaseHead("SQLite format 3\0", 16);
constexpr std::string_view databaseFractions("\x40\x20\x20", 3); // behind it, at byte 21 of every database

struct StatementEnd {
    void operator()(sqlite3_stmt* statement) const noexcept { sqlite3_finalize(statement); }
};
using Statement = std::unique_ptr<sqlite3_stmt, StatementEnd>;

Statement prepare(sqlite3* connection, const char* text)
{
    sqlite3_stmt* statement = nullptr;
    sqlite3_prepare_v2(connection, text, -1, &statement, nullptr);
    return Statement(statement);
}

std::string textOf(sqlite3_stmt* statement, int column)
{
    const auto* text = reinterpret_cast<const char*>(sqlite3_column_text(statement, column));
    const int size = sqlite3_column_bytes(statement, column);
    return text ? std::string(text, static_cast<size_t>(size)) : std::string();
}

/// Makes a write beyond RLIMIT_FSIZE fail with an error instead of ending the process by SIGXFSZ.
class FileSizeSignalBlock {
public:
    FileSizeSignalBlock()
    {
        rlimit limit = {};
        _isNeeded = getrlimit(RLIMIT_FSIZE, &limit) != 0 || limit.rlim_cur != RLIM_INFINITY;
        if (!_isNeeded)
            return;
        sigemptyset(&_signal);
        sigaddset(&_signal, SIGXFSZ);
        sigset_t pending;
        sigpending(&pending);
        _wasPending = sigismember(&pending, SIGXFSZ) == 1;
        pthread_sigmask(SIG_BLOCK, &_signal, &_before);
    }
    ~FileSizeSignalBlock()
    {
        if (!_isNeeded)
            return;
        const timespec now{};
        if (!_wasPending)
            while (sigtimedwait(&_signal, nullptr, &now) == SIGXFSZ) {
            }
        pthread_sigmask(SIG_SETMASK, &_before, nullptr);
    }
    FileSizeSignalBlock(const FileSizeSignalBlock&) = delete;
    FileSizeSignalBlock& operator=(const FileSizeSignalBlock&) = delete;

private:
    sigset_t _signal, _before;
    bool _isNeeded = false;
    bool _wasPending = false;
};

/// Keeps other processes from opening the database or setting it aside at the same time. Otherwise, if the
/// file were renamed after a process opened it but before that process created its log, the log would be
/// applied to the next file of that name.
class OpeningLock {
public:
    OpeningLock(const std::string& path, bool makes, Clock::time_point deadline)
        // Opened read-only, so that processes that watch the folder for writers are not woken.
        : _descriptor(::open(path.c_str(), O_RDONLY | (makes ? O_CREAT : 0) | O_CLOEXEC | O_NOFOLLOW,
                             S_IRUSR | S_IWUSR))
    {
        // Without a lock file no lock is needed: this process may not create files in the folder.
        while (_descriptor >= 0 && flock(_descriptor, LOCK_EX | LOCK_NB) != 0) {
            if (errno != EWOULDBLOCK && errno != EINTR)
                return; // the file system does not support these locks
            _isHeldByOther = Clock::now() >= deadline;
            if (_isHeldByOther)
                return;
            std::this_thread::sleep_for(std::chrono::milliseconds(2));
        }
    }
    ~OpeningLock()
    {
        if (_descriptor >= 0)
            ::close(_descriptor);
    }
    OpeningLock(const OpeningLock&) = delete;
    OpeningLock& operator=(const OpeningLock&) = delete;
    bool isHeldByOther() const noexcept { return _isHeldByOther; }

private:
    const int _descriptor;
    bool _isHeldByOther = false;
};

/// Returns true if the file is empty, cannot be read, or begins with SQLite's header. SQLite itself treats a
/// short file as an empty one and overwrites it.
bool mayBeDatabase(const std::string& path)
{
    const int descriptor = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0)
        return true;
    std::array<char, databaseHead.size()> found{};
    const ssize_t count = ::read(descriptor, found.data(), found.size());
    ::close(descriptor);
    return count <= 0 || std::string_view(found.data(), static_cast<size_t>(count)) == databaseHead;
}

/// Returns the URI that opens a file which no process will change.
std::string immutableName(const std::string& path)
{
    std::string name = "file:";
    for (const char each : path) {
        if (each == '%' || each == '?' || each == '#') {
            constexpr std::array digits{'0', '1', '2', '3', '4', '5', '6', '7',
                                        '8', '9', 'A', 'B', 'C', 'D', 'E', 'F'};
            const auto byte = static_cast<unsigned char>(each);
            name += {'%', digits[byte >> 4], digits[byte & 15U]};
        } else {
            name += each;
        }
    }
    return name + "?immutable=1";
}

/// Returns ".damaged-20260131-235959-1234": the local time and the process ID.
std::string suffixOfDamaged()
{
    const std::time_t now = std::time(nullptr);
    std::tm parts = {};
    localtime_r(&now, &parts);
    char text[64];
    const size_t length = std::strftime(text, sizeof text, "%Y%m%d-%H%M%S-", &parts);
    return std::string(damagedMark) + std::string(text, length) + std::to_string(getpid());
}

} // namespace

bool DefaultsDatabase::_locate(WhenMissing whenMissing)
{
    std::string problem;
    const std::optional<std::string> folder = userDataFolder(whenMissing, problem);
    // The real path, because SQLite is opened with NOFOLLOW and any parent folder may be a symbolic link.
    const std::unique_ptr<char, decltype(&std::free)> real(
        folder ? realpath(folder->c_str(), nullptr) : nullptr, &std::free);
    _folder = real ? real.get() : folder.value_or("");
    _path = _folder.empty() ? "" : _folder + "/" + _suiteName + ".db";
    return folder ? true : _failWith(problem, /*mayRecover=*/false);
}

bool DefaultsDatabase::open(WhenMissing whenMissing)
{
    if (_connection && _isOpenedFile(_path))
        return true;
    _wasSetAside = _wasSetAside || _isSetAsideByOther();
    close();
    const FileSizeSignalBlock block;
    _waitEnds = Clock::now() + _maximumWait;
    while (!_open(whenMissing)) {
        // Some steps of opening return SQLITE_BUSY without waiting, so that two processes cannot deadlock.
        if ((_lastCode & 0xFF) != SQLITE_BUSY || Clock::now() >= _waitEnds)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    return true;
}

bool DefaultsDatabase::_open(WhenMissing whenMissing)
{
    _lastCode = SQLITE_OK;
    if (!_locate(whenMissing))
        return false;
    const bool makes = whenMissing == WhenMissing::Make || _wasSetAside;
    const OpeningLock lock(_path + ".lock", makes, _waitEnds);
    if (lock.isHeldByOther()) {
        _failWith(_path + ".lock is held by another process");
        _wasLocked = true;
        return false;
    }

    if (makes && !_make())
        return false;
    struct stat state = {};
    if (lstat(_path.c_str(), &state) != 0)
        return _failWith(_path + ": " + std::generic_category().message(errno));
    if (!S_ISREG(state.st_mode))
        return _failWith(_path + (S_ISLNK(state.st_mode) ? " is a link" : " is not a file"));
    if (!mayBeDatabase(_path)) {
        _problem = "it is not a database";
        return _setAside() && _openFile(/*isWritable=*/true);
    }

    if (_openFile(/*isWritable=*/true))
        return true;
    if (_isCorrupt())
        return _setAside() && _openFile(/*isWritable=*/true);
    const int code = _lastCode & 0xFF;
    if (code != SQLITE_CANTOPEN && code != SQLITE_READONLY && code != SQLITE_PERM)
        return false;
    const std::string problem = _problem;
    const bool canRead = _openFile(/*isWritable=*/false);
    _problem = problem;
    return canRead;
}

/// Creates the file if it does not exist, with mode 0600: SQLite would let other users read it.
bool DefaultsDatabase::_make()
{
    const int made = ::open(_path.c_str(), O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (made < 0)
        return errno == EEXIST || _failWith(_path + ": " + std::generic_category().message(errno));
    ::close(made);
    return true;
}

bool DefaultsDatabase::_openFile(bool isWritable)
{
    close();
    const auto openAs = [this](const std::string& name, int flags) {
        sqlite3_close(std::exchange(_connection, nullptr));
        const int code = sqlite3_open_v2(name.c_str(), &_connection,
                                         flags | SQLITE_OPEN_NOMUTEX | SQLITE_OPEN_NOFOLLOW, nullptr);
        if (!_connection)
            return _failWith(_path + ": out of memory");
        sqlite3_extended_result_codes(_connection, 1);
        sqlite3_busy_handler(_connection, &_waitForOthers, this);
        // Without this, the last process to close the file would remove the log by name, even if it belongs
        // to a new file.
        int keepsLog = 1;
        sqlite3_file_control(_connection, "main", SQLITE_FCNTL_PERSIST_WAL, &keepsLog);
        return code == SQLITE_OK && _execute("PRAGMA trusted_schema=OFF");
    };
    bool isOpen = false;
    if (isWritable) {
        isOpen = openAs(_path, SQLITE_OPEN_READWRITE);
        if (isOpen && sqlite3_db_readonly(_connection, "main") == 1) {
            _lastCode = SQLITE_READONLY;
            _problem = _path + " may not be written";
            close();
            return false;
        }
        // On a file system without shared memory the journal mode stays unchanged, and everything works. A
        // new file contains nothing that could be lost, so creating it need not wait for the disk.
        struct stat state = {};
        const bool isNew = stat(_path.c_str(), &state) == 0 && state.st_size == 0;
        if (isOpen && !_isForUs()) { // before the journal mode is set, which is stored in the file
            close();
            return false;
        }
        isOpen = isOpen && (!isNew || _execute("PRAGMA synchronous=OFF")) &&
                 _execute("PRAGMA journal_mode=WAL") && _execute("PRAGMA wal_autocheckpoint=128") &&
                 _execute("PRAGMA journal_size_limit=1048576");
    } else {
        int64_t ignored = 0;
        isOpen =
            openAs(_path, SQLITE_OPEN_READONLY) && _number("SELECT count(*) FROM sqlite_schema", ignored);
        // Where no log can be created, no other process writes one either. Any other reason, such as a lack
        // of descriptors, passes: without its log the file would have old values, and would keep them.
        if (!isOpen && faccessat(AT_FDCWD, _folder.c_str(), W_OK, AT_EACCESS) != 0)
            isOpen = openAs(immutableName(_path), SQLITE_OPEN_READONLY | SQLITE_OPEN_URI);
    }
    if (isOpen)
        isOpen = _prepareSchema(isWritable) && _execute("PRAGMA synchronous=FULL") &&
                 stat(_path.c_str(), &_identity) == 0;
    else if (_connection)
        _fail("open");
    if (!isOpen) {
        close();
        return false;
    }
    _isWritable = isWritable;
    return true;
}

/// Returns true if the file is empty or a database of this version of dxr. Sets `isEmpty` to which it is.
bool DefaultsDatabase::_isForUs(bool* isEmpty)
{
    int64_t application = 0;
    int64_t version = 0;
    int64_t tables = 0;
    if (!_number("PRAGMA application_id", application) || !_number("PRAGMA user_version", version) ||
        !_number("SELECT count(*) FROM sqlite_schema", tables))
        return false;
    const bool hasNothing = application == 0 && version == 0 && tables == 0;
    if (isEmpty)
        *isEmpty = hasNothing;
    if (hasNothing || (application == applicationID && version == schemaVersion))
        return true;
    // Otherwise closing would copy the other program's log into its file.
    sqlite3_db_config(_connection, SQLITE_DBCONFIG_NO_CKPT_ON_CLOSE, 1, nullptr);
    return _failWith(
        _path + (application == applicationID ? " is of a later version of dxr" : " is another program's"));
}

bool DefaultsDatabase::_prepareSchema(bool isWritable)
{
    bool isEmpty = false;
    if (!_isForUs(&isEmpty))
        return false;
    if (isEmpty) {
        if (!isWritable)
            return _failWith(_path + " is empty");
        if (_execute("BEGIN IMMEDIATE") &&
            _execute("CREATE TABLE entries(key TEXT PRIMARY KEY NOT NULL, value TEXT NOT NULL) "
                     "STRICT, WITHOUT ROWID") &&
            _execute(("PRAGMA application_id=" + std::to_string(applicationID)).c_str()) &&
            _execute(("PRAGMA user_version=" + std::to_string(schemaVersion)).c_str()) && _execute("COMMIT"))
            return true;
        const int code = _lastCode;
        sqlite3_exec(_connection, "ROLLBACK", nullptr, nullptr, nullptr);
        _lastCode = code;
        return false;
    }
    const Statement check = prepare(_connection, "PRAGMA quick_check(1)");
    const bool hasTable = prepare(_connection, "SELECT key, value FROM entries") != nullptr;
    const int code = check ? sqlite3_step(check.get()) : sqlite3_errcode(_connection);
    if (code == SQLITE_ROW && textOf(check.get(), 0) == "ok" && hasTable)
        return true;
    if (code != SQLITE_ROW)
        return _fail("check");
    _failWith(_path + ": " + (hasTable ? textOf(check.get(), 0) : std::string("its table is missing")));
    _lastCode = SQLITE_CORRUPT;
    return false;
}

void DefaultsDatabase::close()
{
    sqlite3_finalize(std::exchange(_dataVersionStatement, nullptr));
    sqlite3_close_v2(std::exchange(_connection, nullptr)); // a caller's statement may still exist
    _isInTransaction = false;
    _isWritable = false;
    _dataVersion = -1;
}

DefaultsDatabase::Reading DefaultsDatabase::read(DefaultsRows& rows)
{
    if (!_connection)
        return Reading::Failed;
    const FileSizeSignalBlock block; // reading may have to recover the log, which writes
    if (!_isInTransaction)
        _waitEnds = Clock::now() + _maximumWait;
    if (!_dataVersionStatement)
        _dataVersionStatement = prepare(_connection, "PRAGMA data_version").release();
    const bool hasVersion = _dataVersionStatement && sqlite3_step(_dataVersionStatement) == SQLITE_ROW;
    const int64_t version = hasVersion ? sqlite3_column_int64(_dataVersionStatement, 0) : -1;
    sqlite3_reset(_dataVersionStatement);
    if (hasVersion && version == _dataVersion)
        return Reading::Unchanged;

    const Statement statement = prepare(_connection, "SELECT key, value FROM entries");
    DefaultsRows found;
    int code = SQLITE_ERROR;
    while (statement && (code = sqlite3_step(statement.get())) == SQLITE_ROW) {
        std::string key = textOf(statement.get(), 0);
        std::string value = textOf(statement.get(), 1);
        const auto before = rows.find(key);
        const bool isSame = before != rows.end() && before->second->value() == value;
        // NOLINTNEXTLINE(clang-analyzer-cplusplus.Move): `value` is new in each iteration
        CXRef<DefaultsRow> row = isSame ? before->second : DefaultsRow::initWithValue(std::move(value));
        found.emplace(std::move(key), std::move(row));
    }
    if (code != SQLITE_DONE) {
        _fail("read");
        if (_isCorrupt())
            close(); // the next call of open() sets the file aside
        return Reading::Failed;
    }
    rows = std::move(found);
    _dataVersion = version;
    return Reading::Done;
}

bool DefaultsDatabase::begin()
{
    if (!_isWritable)
        close(); // a file that was opened read-only may be writable by now
    if (!open(WhenMissing::Make) || !_isWritable)
        return false;
    const FileSizeSignalBlock block;
    _waitEnds = Clock::now() + _maximumWait;
    if (!_isDatabaseStill()) {
        close();
        return false;
    }
    _isInTransaction = _execute("BEGIN IMMEDIATE");
    if (!_isInTransaction && _isCorrupt())
        close(); // as in read()
    return _isInTransaction;
}

bool DefaultsDatabase::commit(const DefaultsChanges& changes)
{
    const FileSizeSignalBlock block;
    const Statement insertion = prepare(_connection, "INSERT INTO entries(key, value) VALUES(?1, ?2) "
                                                     "ON CONFLICT(key) DO UPDATE SET value=excluded.value");
    const Statement removal = prepare(_connection, "DELETE FROM entries WHERE key=?1");
    bool isWritten = insertion && removal;
    for (auto change = changes.begin(); isWritten && change != changes.end(); ++change) {
        const auto& [key, value] = *change;
        sqlite3_stmt* const statement = value ? insertion.get() : removal.get();
        const auto bind = [&](int index, const std::string& text) {
            return sqlite3_bind_text64(statement, index, text.data(), text.size(), SQLITE_STATIC,
                                       SQLITE_UTF8) == SQLITE_OK;
        };
        isWritten = bind(1, key) && (!value || bind(2, *value)) && sqlite3_step(statement) == SQLITE_DONE;
        sqlite3_reset(statement);
    }
    if (!isWritten)
        _fail("write");
    isWritten = isWritten && _execute("COMMIT");
    if (!isWritten) {
        rollback();
        return false;
    }
    _isInTransaction = false;
    // Wakes the watchers in other processes. Done after the commit, so that they see the change when they
    // read: the log is written before the transaction is committed. If a process dies in between, closing its
    // files wakes them.
    utimensat(AT_FDCWD, _path.c_str(), nullptr, 0);
    return true;
}

void DefaultsDatabase::rollback()
{
    if (_connection && sqlite3_get_autocommit(_connection) == 0)
        sqlite3_exec(_connection, "ROLLBACK", nullptr, nullptr, nullptr);
    _isInTransaction = false;
    if (_isCorrupt())
        close(); // as in read()
}

bool DefaultsDatabase::isMissing()
{
    struct stat now = {};
    const bool isMissing = _locate(WhenMissing::Leave) && lstat(_path.c_str(), &now) != 0 && errno == ENOENT;
    // Between the renaming of a damaged file and the creation of the next one, or if that failed.
    _wasSetAside = _wasSetAside || (isMissing && _isSetAsideByOther());
    return isMissing && !_wasSetAside;
}

/// Returns true if `path` is the file that was opened last.
bool DefaultsDatabase::_isOpenedFile(const std::string& path) const
{
    struct stat now = {};
    return _identity.st_nlink > 0 && lstat(path.c_str(), &now) == 0 && now.st_ino == _identity.st_ino &&
           now.st_dev == _identity.st_dev;
}

/// Returns true if another process found the file damaged and renamed it. This process may not have noticed
/// the damage, because it has the pages in memory.
bool DefaultsDatabase::_isSetAsideByOther() const
{
    if (_identity.st_nlink == 0 || _isOpenedFile(_path))
        return false;
    std::error_code error;
    const std::string prefix = _suiteName + ".db" + std::string(damagedMark);
    for (std::filesystem::directory_iterator each(_folder, error), end; !error && each != end;
         each.increment(error))
        if (each->path().filename().string().starts_with(prefix) && _isOpenedFile(each->path()))
            return true;
    return false;
}

/// Returns true if the open file still begins with the constant parts of SQLite's header
/// (https://www.sqlite.org/fileformat.html, 1.3). SQLite does not check this while the page is in its
/// cache, and data written into a file that was overwritten is lost to other processes.
bool DefaultsDatabase::_isDatabaseStill()
{
    sqlite3_file* file = nullptr; // SQLite's handle: closing another descriptor would release its locks
    std::array<char, 24> found{};
    if (sqlite3_file_control(_connection, "main", SQLITE_FCNTL_FILE_POINTER, &file) != SQLITE_OK)
        return true;
    const int read = file->pMethods->xRead(file, found.data(), static_cast<int>(found.size()), 0);
    if (read != SQLITE_OK && read != SQLITE_IOERR_SHORT_READ)
        return true; // a disk error is no damage of the file; the next statement reports it
    const std::string_view header(found.data(), found.size());
    if (header.starts_with(databaseHead) && header.ends_with(databaseFractions))
        return true;
    _failWith(_path + " is not a database any more");
    _lastCode = SQLITE_NOTADB;
    return false;
}

bool DefaultsDatabase::_setAside()
{
    const std::string damage = _problem;
    const std::string name = _path + suffixOfDamaged();
    // The log is renamed first: beside a new database file it would be applied to that file.
    for (const char* part : {"-wal", "-shm", ""}) {
        const std::string from = _path + part;
        if (std::rename(from.c_str(), (name + part).c_str()) != 0 && errno != ENOENT)
            return _failWith(damage +
                             ", and it cannot be set aside: " + std::generic_category().message(errno));
    }
    _wasSetAside = true;
    LogSink::log("Damaged settings were set aside as " + name + " (" + damage + ")");
    return _make();
}

bool DefaultsDatabase::_isCorrupt() const noexcept
{
    const int code = _lastCode & 0xFF;
    return code == SQLITE_CORRUPT || code == SQLITE_NOTADB;
}

bool DefaultsDatabase::_execute(const char* statement)
{
    return sqlite3_exec(_connection, statement, nullptr, nullptr, nullptr) == SQLITE_OK || _fail(statement);
}

bool DefaultsDatabase::_number(const char* statement, int64_t& number)
{
    const Statement prepared = prepare(_connection, statement);
    if (!prepared || sqlite3_step(prepared.get()) != SQLITE_ROW)
        return _fail(statement);
    number = sqlite3_column_int64(prepared.get(), 0);
    return true;
}

bool DefaultsDatabase::_fail(const char* step)
{
    _lastCode = sqlite3_extended_errcode(_connection);
    _problem = _path + ": " + sqlite3_errmsg(_connection) + " (" + step + ")";
    if (const int cause = sqlite3_system_errno(_connection); cause != 0)
        _problem += ": " + std::generic_category().message(cause);
    else if (_lastCode > 0xFF)
        _problem += ": SQLite's " + std::to_string(_lastCode);
    _mayRecover = true;
    _wasLocked = (_lastCode & 0xFF) == SQLITE_BUSY;
    return false;
}

bool DefaultsDatabase::_failWith(std::string problem, bool mayRecover)
{
    _lastCode = SQLITE_OK;
    _problem = std::move(problem);
    _mayRecover = mayRecover;
    _wasLocked = false;
    return false;
}

int DefaultsDatabase::_waitForOthers(void* database, int)
{
    if (Clock::now() >= static_cast<DefaultsDatabase*>(database)->_waitEnds)
        return 0;
    // Short random waits, so that each of many writers soon gets its turn.
    thread_local std::minstd_rand random{std::random_device{}()};
    std::this_thread::sleep_for(
        std::chrono::microseconds(std::uniform_int_distribution<>(300, 3000)(random)));
    return 1;
}

} // namespace dxr
