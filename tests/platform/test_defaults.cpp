#include "CapturedLog.h"
#include "ContentOf.h"
#include "DefaultsSuite.h"
#include "Eventually.h"
#include "GlobalQueue.h"
#include "InChild.h"
#include "Port.h"
#include "SerialQueue.h"

#include <algorithm>
#include <csignal>
#include <fcntl.h>
#include <future>
#include <sqlite3.h>
#include <sys/eventfd.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>

namespace {

namespace fs = std::filesystem;
using dxr::DefaultsChanges, dxr::DefaultsSnapshot, dxr::DefaultsSuite;

const std::string suiteName = "com.example.a%20#?suite";

CXRef<DefaultsSuite> suite()
{
    return DefaultsSuite::suiteNamed(suiteName);
}

bool write(const std::string& key, const std::optional<std::string>& value)
{
    return suite()->update([=](const DefaultsSnapshot&) { return DefaultsChanges{{key, value}}; });
}

/// Returns the suite's contents as "key=value " for each row.
std::string contents()
{
    std::string text;
    const CXRef<DefaultsSnapshot> snapshot = suite()->snapshot();
    for (const auto& [key, row] : snapshot->rows())
        text += key + "=" + row->value() + " ";
    return text;
}

/// A database connection of another program.
class Connection {
public:
    explicit Connection(const fs::path& path) { sqlite3_open(path.c_str(), &_connection); }
    ~Connection() { sqlite3_close(_connection); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    void operator()(const char* statements)
    {
        EXPECT_EQ(sqlite3_exec(_connection, statements, nullptr, nullptr, nullptr), SQLITE_OK)
            << sqlite3_errmsg(_connection);
    }

private:
    sqlite3* _connection = nullptr;
};

/// A process keeps the first suite it opens, so each case runs in a separate process.
class Defaults : public testing::Test {
protected:
    Defaults() { startAnew(); }
    ~Defaults() override { fs::remove_all(home); }

    /// Creates an empty folder owned by this user, with the usual permissions.
    void startAnew() const
    {
        for (const fs::path& each : {home, folder})
            if (fs::is_directory(each))
                fs::permissions(each, fs::perms::owner_all);
        fs::remove_all(home);
        fs::create_directories(folder);
    }

    const fs::path home = secure_getenv("XDG_DATA_HOME");
    const fs::path folder = home / "dxr";
    const fs::path file = folder / (suiteName + ".db");
};

/// Limits what this process may use. A limit of the file size simulates a full disk.
void setLimit(decltype(RLIMIT_FSIZE) resource, rlim_t value)
{
    rlimit limit{};
    getrlimit(resource, &limit);
    limit.rlim_cur = std::min(value, limit.rlim_max);
    setrlimit(resource, &limit);
}

/// Stores a value, as an earlier run would have.
void keepSomething()
{
    inChild([] { EXPECT_TRUE(write("old", "1")); });
}

TEST_F(Defaults, keepValuesForTheNextProcessAndFromOtherUsers)
{
    fs::remove_all(home);
    inChild([] { EXPECT_EQ(contents(), ""); });
    EXPECT_FALSE(fs::exists(home)) << "a read makes nothing";
    inChild([] {
        EXPECT_TRUE(write("b", std::string("\0x\n", 3)));
        EXPECT_TRUE(write("a", "1"));
        EXPECT_TRUE(write("gone", "1"));
        EXPECT_TRUE(write("gone", std::nullopt));
    });
    inChild([] { EXPECT_EQ(contents(), std::string("a=1 b=") + std::string("\0x\n ", 4)); });
    struct stat state = {};
    for (const fs::path& path : {folder, file, fs::path(file.string() + "-wal")}) {
        ASSERT_EQ(stat(path.c_str(), &state), 0) << path;
        EXPECT_EQ(state.st_mode & 077U, 0U) << path;
    }
}

TEST_F(Defaults, liveInMemoryWhereNothingCanBeKept)
{
    const bool isRoot = geteuid() == 0;
    const auto shell = [this](const std::string& script) {
        return [=, this] { EXPECT_EQ(std::system(("cd '" + home.string() + "' && " + script).c_str()), 0); };
    };
    const auto environment = [](const std::string& homeFolder, const char* dataFolder) {
        return [=] {
            setenv("HOME", homeFolder.c_str(), 1);
            setenv("XDG_DATA_HOME", dataFolder, 1);
        };
    };
    const std::string database = "'dxr/" + suiteName + ".db'",
                      chownAll = isRoot ? "chown 65534 . dxr && " : "";
    const std::string foreign = isRoot ? (home / "foreign").string() : "/usr";
    struct {
        const char* why;
        std::function<void()> arrange;
        const char* complaint; ///< expected in the only log line
    } const rows[] = {
        {"no home, and a relative data directory counts as none", environment("", "relative"),
         "no home directory"},
        {"a home that does not exist", environment(home / "nobody", ""), "No such file"},
        {"another user's home, as root has with sudo -E", environment(foreign, ""),
         "belongs to another user"},
        {"a file in place of the folder", shell("rmdir dxr && echo x > dxr"), "is not a folder"},
        {"a pipe in place of the file", shell("mkfifo " + database), "is not a file"},
        {"a link in place of the file", shell("echo precious > victim && ln -s ../victim " + database),
         "is a link"},
        {"a link in place of the folder", shell("mv dxr elsewhere && ln -s elsewhere dxr"), "is a link"},
        {"a folder that others may write to", shell("chmod g+w dxr"), "chmod go-w"},
        {"another program's database", [&] { Connection{file}("CREATE TABLE theirs(x)"); },
         "another program's"},
        {"a later version's, with changes in its log",
         [&] {
             inChild([&] { // ends without closing the database
                 static Connection later(file);
                 later("PRAGMA journal_mode=WAL; PRAGMA application_id=1685615187; PRAGMA user_version=2");
             });
         },
         "later version"},
        {"a full disk", [] { setLimit(RLIMIT_FSIZE, 1000); }, "disk I/O error"},
        {"a folder that may not be written",
         [&] {
             keepSomething();
             shell(chownAll + "chmod 444 dxr/* && chmod 500 . dxr")();
             EXPECT_EQ(isRoot ? setresuid(65534, 65534, 65534) : 0, 0);
         },
         ""},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        fs::create_directory(home / "foreign");
        EXPECT_EQ(chown((home / "foreign").c_str(), isRoot ? 65534 : geteuid(), getegid()), 0);
        inChild([&] {
            row.arrange();
            const std::string before = *row.complaint ? "" : "old=1 "; // readable from the folder
            const std::string bytes = fs::is_regular_file(file) ? contentOf(file) : "";
            const CapturedLog log;
            EXPECT_EQ(contents(), before);
            std::atomic<int> calls{0};
            suite()->addObserver("a", [&] { ++calls; });
            EXPECT_FALSE(write("a", "1"));
            EXPECT_FALSE(write("b", "2"));
            EXPECT_FALSE(write("b", std::nullopt));
            EXPECT_FALSE(suite()->synchronize());
            EXPECT_EQ(contents(), "a=1 " + before);
            EXPECT_TRUE(eventually([&] { return calls == 1; }));
            EXPECT_EQ(log.lines().size(), 1U);
            EXPECT_NE(log.lines()[0].find(row.complaint), std::string::npos) << log.lines()[0];
            EXPECT_TRUE(bytes.empty() || contentOf(file) == bytes) << "the file was changed";
        });
        EXPECT_TRUE(!fs::exists(home / "victim") || contentOf(home / "victim") == "precious\n");
        for (const char* untouched : {"foreign", "elsewhere"})
            EXPECT_TRUE(!fs::exists(home / untouched) || fs::is_empty(home / untouched));
        EXPECT_FALSE(fs::exists(home / "nobody")) << "no home is made";
        startAnew();
    }
}

TEST_F(Defaults, areStoredOnceTheDiskHasRoomAgain)
{
    keepSomething();
    inChild([] {
        const CapturedLog log;
        setLimit(RLIMIT_FSIZE, 1000);
        for (int i = 0; i < 1500; ++i) // more changes than are kept individually
            EXPECT_FALSE(write("count", std::to_string(i)));
        EXPECT_EQ(log.lines().size(), 1U);
        sigset_t blocked;
        pthread_sigmask(SIG_BLOCK, nullptr, &blocked);
        EXPECT_EQ(sigismember(&blocked, SIGXFSZ), 0) << "only while it stores";
        EXPECT_EQ(contents(), "count=1499 ") << "the stored value cannot be read either";
        setLimit(RLIMIT_FSIZE, RLIM_INFINITY);
        EXPECT_TRUE(suite()->synchronize());
    });
    inChild([&] { // without being asked to, and without an event
        EXPECT_EQ(contents(), "count=1499 old=1 ");
        setLimit(RLIMIT_FSIZE, 1000);
        EXPECT_FALSE(write("late", "1"));
        const auto before = fs::last_write_time(file);
        setLimit(RLIMIT_FSIZE, RLIM_INFINITY);
        EXPECT_TRUE(eventually([&] { return fs::last_write_time(file) != before; }));
    });
    inChild([] { EXPECT_EQ(contents(), "count=1499 late=1 old=1 "); });
}

TEST_F(Defaults, areNotReadFromAFileWhoseLogCannotBeOpened)
{
    keepSomething();
    Connection{file}("PRAGMA wal_checkpoint(TRUNCATE)");
    inChild([] { EXPECT_TRUE(write("old", "2")); }); // stays in the log: the process never closes the file
    for (rlim_t free = 0; free < 7; ++free)
        inChild([&] {
            const int lowest = dup(STDERR_FILENO);
            close(lowest);
            const CapturedLog log;
            setLimit(RLIMIT_NOFILE, static_cast<rlim_t>(lowest) + free);
            EXPECT_EQ(contents(), suite()->load() ? "old=2 " : "") << free;
            setLimit(RLIMIT_NOFILE, 1024);
            EXPECT_TRUE(write("new", std::nullopt));
            EXPECT_EQ(contents(), "old=2 ") << free;
        });
}

TEST_F(Defaults, areFollowedOnceAThreadCanBeCreated)
{
    const bool isRoot = geteuid() == 0; // root has no limit
    EXPECT_EQ(std::system(isRoot ? ("chown -R 65534 '" + home.string() + "'").c_str() : "true"), 0);
    inChild([&] {
        const CXRef<dxr::SerialQueue> queue = dxr::SerialQueue::initWithLabel("delayed");
        dxr::GlobalQueue& global = dxr::GlobalQueue::highPriority();
        setLimit(RLIMIT_NPROC, 1);
        ASSERT_EQ(isRoot ? setresuid(65534, 65534, 65534) : 0, 0);
        const CapturedLog log;
        EXPECT_TRUE(suite()->load());
        EXPECT_TRUE(write("a", "1"));
        std::atomic<int> refused{0}, accepted{0}, calls{0};
        suite()->addObserver("a", [&] { ++calls; });
        EXPECT_THROW(queue->after(0, [&] { ++refused; }), std::system_error);
        EXPECT_EQ(dxr::Port::initWithDescriptor(eventfd(0, EFD_CLOEXEC)), nullptr);
        setLimit(RLIMIT_NPROC, RLIM_INFINITY);
        queue->after(0, [&] { ++accepted; });
        EXPECT_TRUE(eventually([&] { return accepted == 1; }));
        setLimit(RLIMIT_NPROC, 1);
        EXPECT_THROW(global.after(0, [&] { ++refused; }), std::system_error)
            << "though the timer has its own";
        setLimit(RLIMIT_NPROC, RLIM_INFINITY);
        global.after(0, [&] { ++accepted; });
        EXPECT_TRUE(eventually([&] { return accepted == 2; }));
        EXPECT_EQ(refused, 0);
        EXPECT_EQ(contents(), "a=1 ") << "a read suffices";
        Connection{file}("UPDATE entries SET value='2'");
        EXPECT_TRUE(eventually([&] { return calls == 1; }));
        EXPECT_EQ(log.lines().size(), 1U) << "of the settings";
    });
}

TEST_F(Defaults, setDamagedFilesAside)
{
    keepSomething();
    Connection{file}("PRAGMA wal_checkpoint(TRUNCATE)");
    const std::string good = contentOf(file);
    const std::string garbage(5000, 'g');
    const std::pair<const char*, std::string> rows[] = {
        {"no database at all", garbage},
        {"its head is there", good.substr(0, 4096) + garbage},
        {"half of it", good.substr(0, 4096)},
        {"a short file", "x"}, // SQLite would overwrite it
    };
    for (const auto& [why, bytes] : rows) {
        SCOPED_TRACE(why);
        for (const char* log : {"-wal", "-shm"}) // otherwise the log would repair the file
            fs::remove(file.string() + log);
        std::ofstream(file, std::ios::binary | std::ios::trunc) << bytes;
        inChild([&] {
            const CapturedLog log;
            EXPECT_EQ(contents(), "");
            EXPECT_TRUE(write("a", "1"));
            EXPECT_EQ(log.lines().size(), 1U);
        });
        EXPECT_TRUE(std::ranges::any_of(fs::directory_iterator(folder), [&](const fs::path& each) {
            return each.string().starts_with(file.string() + ".damaged-") && contentOf(each) == bytes;
        }));
        inChild([] { EXPECT_EQ(contents(), "a=1 "); });
    }

    // Damage while the file is in use is detected after writing has begun: the known values are stored at
    // once. If another process has written, SQLite reads the pages again; otherwise it has them in memory.
    char filler = 'b';
    for (const auto& [isReadAgain, keptBytes] :
         {std::pair(true, 0), {false, 0}, {true, 16}, {false, 16}, {true, 4096}}) {
        SCOPED_TRACE(filler);
        const std::string value(9000, filler++);
        const std::string all = "a=1 b=" + value + " c=3 ";
        inChild([&, isReadAgain = isReadAgain, keptBytes = keptBytes] {
            EXPECT_TRUE(write("b", value));
            std::optional<Connection> other(file);
            (*other)("PRAGMA wal_checkpoint(TRUNCATE)");
            if (isReadAgain)
                (*other)("UPDATE entries SET value=value WHERE key='a'");
            else
                EXPECT_TRUE(write("c", "2"));
            const CapturedLog log;
            std::fstream(file, std::ios::binary | std::ios::in | std::ios::out).seekp(keptBytes)
                << std::string(16'384, 'x');
            EXPECT_TRUE(write("c", "3"));
            EXPECT_EQ(log.lines().size(), 1U) << testing::PrintToString(log.lines());
            EXPECT_EQ(contents(), all);
            other.reset();
            for (const fs::directory_entry& each : fs::directory_iterator("/proc/self/fd")) {
                std::error_code ignored;
                EXPECT_EQ(fs::read_symlink(each, ignored).string().find(".damaged-"), std::string::npos);
            }
        });
        inChild([&] { EXPECT_EQ(contents(), all); });
    }

    // Another process that detects the damage sets the file aside. It may end before it creates the next one,
    // and may write to that before this process reads it.
    const auto setAsideByAnother = [&](const std::function<void()>& makeNext) {
        const int opener = open((file.string() + ".lock").c_str(), O_RDONLY);
        ASSERT_EQ(flock(opener, LOCK_EX), 0);
        for (const char* part : {"-wal", "-shm", ""})
            fs::rename(file.string() + part, file.string() + ".damaged-another" + part);
        makeNext();
        EXPECT_EQ(flock(opener, LOCK_UN), 0);
    };
    const std::pair<std::optional<std::string>, std::string> next[] = {{{}, "0"}, {"", "0"}, {good, "1"}};
    for (const auto& [bytes, old] : next) {
        SCOPED_TRACE(bytes ? bytes->size() : -1);
        const std::string value(100, filler++), all = "a=1 b=" + value + " c=3 old=" + old + " ";
        inChild([&, &newBytes = bytes] {
            EXPECT_TRUE(write("b", value));
            EXPECT_TRUE(write("old", "0"));
            setAsideByAnother([&] {
                if (newBytes)
                    std::ofstream(file, std::ios::binary) << *newBytes;
            });
            EXPECT_TRUE(eventually(
                [&] { return contentOf(file.string() + "-wal").find(value) != std::string::npos; }));
            EXPECT_EQ(contents(), all);
        });
        inChild([&] { EXPECT_EQ(contents(), all); });
    }
    inChild([&] { // follows what others write, though it cannot store what it knows
        std::optional<Connection> other;
        EXPECT_TRUE(write("old", "0"));
        setAsideByAnother([&] {
            std::ofstream(file, std::ios::binary) << good;
            other.emplace(file);
            (*other)("UPDATE entries SET key='new'; BEGIN IMMEDIATE");
        });
        const auto shows = [](const char* row) { return contents().find(row) != std::string::npos; };
        EXPECT_TRUE(eventually([&] { return shows("new=1 ") && shows("old=0 "); }));
        (*other)("INSERT INTO entries VALUES('old', '2'); COMMIT; BEGIN IMMEDIATE");
        fs::last_write_time(file, fs::file_time_type::clock::now()); // as each writer does
        EXPECT_TRUE(eventually([&] { return shows("old=2 "); }));
        EXPECT_TRUE(shows("c=3 "));
    });
}

TEST_F(Defaults, waitForALockedDatabaseWhenWritingOnly)
{
    keepSomething();
    Connection other(file);
    other("BEGIN IMMEDIATE");
    inChild([&] {
        const CapturedLog log;
        const auto start = std::chrono::steady_clock::now();
        EXPECT_FALSE(write("a", "1"));
        EXPECT_FALSE(write("a", "2")) << "while it cannot store, it waits less";
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(6));
        EXPECT_EQ(contents(), "a=2 old=1 ");
        EXPECT_EQ(log.lines().size(), 1U);
    });
    other("COMMIT");
    inChild([] { EXPECT_TRUE(write("a", "3")); });

    inChild([&] { // simulates another process that opens the file
        const int opener = open((file.string() + ".lock").c_str(), O_RDONLY);
        ASSERT_EQ(flock(opener, LOCK_EX), 0);
        const CapturedLog log;
        EXPECT_EQ(contents(), "");
        std::atomic<int> calls{0};
        suite()->addObserver("unknown", [&] { ++calls; });
        EXPECT_EQ(flock(opener, LOCK_UN), 0);
        EXPECT_TRUE(eventually([&] { return contents() == "a=3 old=1 "; }));
        EXPECT_TRUE(eventually([&] { return calls == 1; })) << "a key not found may have a value now";
        EXPECT_TRUE(log.lines().empty());
    });
}

TEST_F(Defaults, areFollowedAlsoIfSynchronizedBeforeTheFirstRead)
{
    keepSomething();
    Connection{file}("PRAGMA wal_checkpoint(TRUNCATE)");
    fs::copy(file, home / "copy");
    fs::create_directory(folder / "unreadable.db");
    inChild([&] {
        const CapturedLog log;
        std::atomic<int> calls{0};
        EXPECT_TRUE(suite()->load()) << "one suite is followed already";
        const CXRef<DefaultsSuite> other = DefaultsSuite::suiteNamed("other");
        EXPECT_TRUE(other->synchronize());
        other->addObserver("old", [&] { ++calls; });
        fs::rename(home / "copy", folder / "other.db");
        EXPECT_TRUE(eventually([&] { return calls == 1; }));
        EXPECT_TRUE(log.lines().empty());
        EXPECT_FALSE(DefaultsSuite::suiteNamed("unreadable")->synchronize());
        EXPECT_FALSE(DefaultsSuite::suiteNamed("unreadable")->load());
        EXPECT_EQ(log.lines().size(), 1U);
    });
}

TEST_F(Defaults, notifyObserversOfTheirKeyAlsoWhenFilesAndFoldersAreExchanged)
{
    inChild([&] {
        std::atomic<int> calls{0}, others{0};
        const uint64_t observer = suite()->addObserver("old", [&] { ++calls; });
        suite()->addObserver("new", [&] { ++others; });
        EXPECT_TRUE(write("old", "1"));
        EXPECT_TRUE(eventually([&] { return calls == 1; })) << "of this process";
        Connection{file}("UPDATE entries SET value='2' WHERE key='old'");
        EXPECT_TRUE(eventually([&] { return calls == 2; })) << "of another";

        fs::rename(folder, home / "away");
        EXPECT_TRUE(eventually([&] { return calls == 3; })) << "gone with its folder";
        fs::copy(home / "away", home / "new");
        fs::rename(home / "new", folder);
        EXPECT_TRUE(eventually([&] { return calls == 4; })) << "there again";
        EXPECT_EQ(contents(), "old=2 ");

        for (const char* part : {"", "-wal", "-shm"})
            fs::remove(file.string() + part);
        EXPECT_TRUE(eventually([&] { return calls == 5; })) << "gone with the file";
        EXPECT_FALSE(fs::exists(file)) << "and it is not made again unasked";
        suite()->removeObserver(observer);
        EXPECT_TRUE(write("old", "3"));
        EXPECT_TRUE(write("new", "1"));
        EXPECT_TRUE(eventually([&] { return others == 1; }));
        EXPECT_EQ(calls, 5);
        EXPECT_EQ(contents(), "new=1 old=3 ");

        // Another thread may have read a value that is replaced before the observers are called.
        std::promise<void> isBusy, isOver;
        suite()->addObserver("new", [&] {
            isBusy.set_value();
            isOver.get_future().wait();
        });
        suite()->addObserver("brief", [&] { ++calls; });
        EXPECT_TRUE(write("new", "2"));
        isBusy.get_future().wait();
        EXPECT_TRUE(write("brief", "1"));
        EXPECT_TRUE(write("brief", std::nullopt));
        isOver.set_value();
        EXPECT_TRUE(eventually([&] { return calls == 6; }));
    });
}

} // namespace
