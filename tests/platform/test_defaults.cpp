#include "CapturedLog.h"
#include "DefaultsSuite.h"
#include "InChild.h"

#include <gtest/gtest.h>

#include <chrono>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <sqlite3.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <thread>
#include <unistd.h>

namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;
using dxr::DefaultsChanges;
using dxr::DefaultsSnapshot;
using dxr::DefaultsSuite;

const std::string suiteName = "com.example.suite";

CXRef<DefaultsSuite> suite()
{
    return DefaultsSuite::suiteNamed(suiteName);
}

bool write(const std::string& key, const std::optional<std::string>& value)
{
    return suite()->update([=](const DefaultsSnapshot&) { return DefaultsChanges{{key, value}}; });
}

/// As "key=value ".
std::string contents()
{
    std::string text;
    const CXRef<DefaultsSnapshot> snapshot = suite()->snapshot();
    for (const auto& [key, row] : snapshot->rows())
        text += key + "=" + row->value() + " ";
    return text;
}

template <class Condition> bool comesTrue(Condition condition)
{
    for (int i = 0; i < 2000 && !condition(); ++i)
        std::this_thread::sleep_for(5ms);
    return condition();
}

std::string textOf(const fs::path& path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/// Another program's connection.
class Connection {
public:
    explicit Connection(const fs::path& path) { sqlite3_open(path.c_str(), &_connection); }
    ~Connection() { sqlite3_close(_connection); }
    Connection(const Connection&) = delete;
    Connection& operator=(const Connection&) = delete;
    void operator()(const char* statements)
    {
        char* error = nullptr;
        EXPECT_EQ(sqlite3_exec(_connection, statements, nullptr, nullptr, &error), SQLITE_OK) << error;
        sqlite3_free(error);
    }

private:
    sqlite3* _connection = nullptr;
};

class Defaults : public testing::Test {
protected:
    Defaults()
    {
        fs::remove_all(home);
        fs::create_directories(folder);
    }
    ~Defaults() override { fs::remove_all(home); }

    const fs::path home = secure_getenv("XDG_DATA_HOME");
    const fs::path folder = home / "dxr";
    const fs::path file = folder / (suiteName + ".db");
};

/// The suite of a process is what the process found first, so each case has a process of its own.
void inChild(const std::function<void()>& body)
{
    const bool hasPassed = runInChild(body);
    EXPECT_TRUE(hasPassed);
}

/// A kept value, as an earlier run leaves it.
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

TEST_F(Defaults, tellObserversOfTheirKeyOnly)
{
    inChild([&] {
        std::atomic<int> ofA{0};
        std::atomic<int> ofB{0};
        const uint64_t observer = suite()->addObserver("a", [&] { ++ofA; });
        suite()->addObserver("b", [&] { ++ofB; });
        EXPECT_TRUE(write("a", "1"));
        EXPECT_TRUE(comesTrue([&] { return ofA == 1; })) << "of this process";
        Connection{file}("UPDATE entries SET value='2' WHERE key='a'");
        EXPECT_TRUE(comesTrue([&] { return ofA == 2; })) << "of another";
        EXPECT_EQ(contents(), "a=2 ");
        suite()->removeObserver(observer);
        EXPECT_TRUE(write("a", "3"));
        EXPECT_TRUE(write("b", "1"));
        EXPECT_TRUE(comesTrue([&] { return ofB == 1; }));
        EXPECT_EQ(ofA, 2);
    });
}

TEST_F(Defaults, liveInMemoryWhereNothingCanBeKept)
{
    struct {
        const char* why;
        std::function<void()> arrange;
        const char* complaint;   ///< what the one line says
        const char* before = ""; ///< what can be read all the same
    } const rows[] = {
        {"no home at all",
         [] {
             unsetenv("XDG_DATA_HOME");
             unsetenv("HOME");
         },
         "no home directory"},
        {"a home that does not exist",
         [this] {
             unsetenv("XDG_DATA_HOME");
             setenv("HOME", (home / "nobody").c_str(), 1);
         },
         "No such file"},
        {"a relative data directory counts as none",
         [] {
             setenv("XDG_DATA_HOME", "relative", 1);
             setenv("HOME", "", 1);
         },
         "no home directory"},
        {"a file in place of the folder",
         [this] {
             fs::remove_all(folder);
             std::ofstream(folder) << "x";
         },
         "is not a folder"},
        {"a folder in place of the file", [this] { fs::create_directories(file); }, "is not a file"},
        {"a pipe in place of the file", [this] { mkfifo(file.c_str(), 0600); }, "is not a file"},
        {"a link in place of the file",
         [this] {
             std::ofstream(home / "victim") << "precious";
             fs::create_symlink(home / "victim", file);
         },
         "is a link"},
        {"a link in place of the folder",
         [this] {
             fs::rename(folder, home / "elsewhere");
             fs::create_symlink(home / "elsewhere", folder);
         },
         "is a link"},
        {"a folder that others may write to",
         [this] { fs::permissions(folder, fs::perms::group_write, fs::perm_options::add); }, "chmod go-w"},
        {"another user's home", // as root has with sudo -E
         [this] {
             fs::create_directories(home / "foreign");
             EXPECT_EQ(chown((home / "foreign").c_str(), geteuid() == 0 ? 65534 : geteuid(), getegid()), 0);
             unsetenv("XDG_DATA_HOME");
             setenv("HOME", geteuid() == 0 ? (home / "foreign").c_str() : "/usr", 1);
         },
         "belongs to another user"},
        {"another program's database", [this] { Connection{file}("CREATE TABLE theirs(x)"); },
         "another program's"},
        {"a later version's",
         [this] {
             keepSomething();
             Connection{file}("PRAGMA user_version=2");
         },
         "later version"},
        {"a full disk",
         [] {
             const rlimit limit{1000, 1000};
             setrlimit(RLIMIT_FSIZE, &limit);
         },
         "disk I/O error"},
        {"a folder that may not be written",
         [this] {
             keepSomething();
             for (const fs::path& each : {home, folder})
                 EXPECT_EQ(chown(each.c_str(), geteuid() == 0 ? 65534 : geteuid(), getegid()), 0);
             for (const auto& each : fs::directory_iterator(folder))
                 fs::permissions(each,
                                 fs::perms::owner_read | fs::perms::group_read | fs::perms::others_read);
             for (const fs::path& each : {home, folder})
                 fs::permissions(each, fs::perms::owner_read | fs::perms::owner_exec);
             if (geteuid() == 0) {
                 EXPECT_EQ(setresuid(65534, 65534, 65534), 0);
             }
         },
         "", "old=1 "},
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        inChild([&] {
            row.arrange();
            const CapturedLog log;
            const auto start = std::chrono::steady_clock::now();
            EXPECT_EQ(contents(), row.before);
            std::atomic<int> calls{0};
            suite()->addObserver("a", [&] { ++calls; });
            EXPECT_FALSE(write("a", "1"));
            EXPECT_FALSE(write("b", "2"));
            EXPECT_FALSE(write("b", std::nullopt));
            EXPECT_FALSE(suite()->synchronize());
            EXPECT_EQ(contents(), std::string("a=1 ") + row.before);
            EXPECT_TRUE(comesTrue([&] { return calls == 1; }));
            EXPECT_LT(std::chrono::steady_clock::now() - start, 20s);
            EXPECT_EQ(log.lines().size(), 1U);
            EXPECT_NE(log.lines()[0].find(row.complaint), std::string::npos) << log.lines()[0];
        });
        EXPECT_EQ(fs::exists(file) && fs::is_symlink(file) ? textOf(home / "victim") : "precious",
                  "precious");
        EXPECT_TRUE(!fs::exists(home / "foreign") || fs::is_empty(home / "foreign"));
        EXPECT_TRUE(!fs::exists(home / "elsewhere") || fs::is_empty(home / "elsewhere"));
        fs::permissions(home, fs::perms::owner_all);
        if (fs::is_directory(folder))
            fs::permissions(folder, fs::perms::owner_all);
        EXPECT_EQ(chown(home.c_str(), geteuid(), getegid()), 0);
        EXPECT_FALSE(fs::exists(home / "nobody")) << "no home is made";
        fs::remove_all(home);
        fs::create_directories(folder);
    }
}

TEST_F(Defaults, areStoredOnceTheDiskHasRoomAgain)
{
    keepSomething();
    inChild([] {
        const CapturedLog log;
        rlimit limit{};
        getrlimit(RLIMIT_FSIZE, &limit);
        limit.rlim_cur = 1000;
        setrlimit(RLIMIT_FSIZE, &limit);
        for (int i = 0; i < 1500; ++i) // more than are kept one by one
            EXPECT_FALSE(write("count", std::to_string(i)));
        EXPECT_EQ(log.lines().size(), 1U);
        EXPECT_EQ(contents(), "count=1499 ") << "what was there cannot be read either";
        limit.rlim_cur = limit.rlim_max;
        setrlimit(RLIMIT_FSIZE, &limit);
        EXPECT_TRUE(suite()->synchronize());
    });
    inChild([] { EXPECT_EQ(contents(), "count=1499 old=1 "); });
}

TEST_F(Defaults, setDamagedFilesAside)
{
    const auto isSetAside = [this](const std::string& bytes) {
        for (const auto& each : fs::directory_iterator(folder))
            if (each.path().string().starts_with(file.string() + ".damaged-") && textOf(each.path()) == bytes)
                return true;
        return false;
    };
    keepSomething();
    Connection{file}("PRAGMA wal_checkpoint(TRUNCATE)");
    const std::string good = textOf(file);
    const std::string garbage(5000, 'g');
    struct {
        const char* why;
        std::string bytes;
    } const rows[] = {
        {"no database at all", garbage},
        {"its head is there", good.substr(0, 4096) + garbage},
        {"half of it", good.substr(0, 4096)},
        {"a short file", "x"}, // which SQLite would write over
    };
    for (const auto& row : rows) {
        SCOPED_TRACE(row.why);
        for (const char* log : {"-wal", "-shm"}) // else the log would mend it
            fs::remove(file.string() + log);
        std::ofstream(file, std::ios::binary | std::ios::trunc) << row.bytes;
        inChild([&] {
            const CapturedLog log;
            EXPECT_EQ(contents(), "");
            EXPECT_TRUE(write("a", "1"));
            EXPECT_EQ(log.lines().size(), 1U);
        });
        EXPECT_TRUE(isSetAside(row.bytes));
        inChild([] { EXPECT_EQ(contents(), "a=1 "); });
    }

    // Damaged while it is in use, which shows when the writing has begun: what is known is kept, and stored at once.
    inChild([&] {
        EXPECT_TRUE(write("b", std::string(9000, 'b')));
        Connection other(file);
        other("PRAGMA wal_checkpoint(TRUNCATE)");
        other("UPDATE entries SET value=value WHERE key='a'");
        const CapturedLog log;
        { // in one go: the next file of the name is not meant
            std::ofstream target(file, std::ios::binary | std::ios::in);
            target << std::string(size_t{4} * 4096, 'x');
        }
        EXPECT_TRUE(write("c", "3"));
        EXPECT_EQ(log.lines().size(), 1U) << testing::PrintToString(log.lines());
        EXPECT_EQ(contents(), "a=1 b=" + std::string(9000, 'b') + " c=3 ");
    });
    inChild([] { EXPECT_EQ(contents(), "a=1 b=" + std::string(9000, 'b') + " c=3 "); });
}

TEST_F(Defaults, waitForALockedDatabaseAndNoLonger)
{
    keepSomething();
    Connection other(file);
    other("BEGIN IMMEDIATE");
    inChild([&] {
        const CapturedLog log;
        const auto start = std::chrono::steady_clock::now();
        EXPECT_FALSE(write("a", "1"));
        EXPECT_FALSE(write("a", "2")) << "while it cannot store, it waits less";
        EXPECT_LT(std::chrono::steady_clock::now() - start, 6s);
        EXPECT_EQ(contents(), "a=2 old=1 ");
        EXPECT_EQ(log.lines().size(), 1U);
    });
    other("COMMIT");
    inChild([] { EXPECT_TRUE(write("a", "3")); });
}

TEST_F(Defaults, areReadAsSoonAsAnotherProcessAllows)
{
    keepSomething();
    inChild([&] {
        const int opener =
            open((file.string() + ".lock").c_str(), O_RDONLY); // another process, opening the file
        ASSERT_EQ(flock(opener, LOCK_EX), 0);
        const CapturedLog log;
        EXPECT_EQ(contents(), "") << "it is not waited for";
        std::atomic<int> calls{0};
        suite()->addObserver("unknown", [&] { ++calls; });
        EXPECT_EQ(flock(opener, LOCK_UN), 0);
        EXPECT_TRUE(comesTrue([&] { return contents() == "old=1 "; }));
        EXPECT_TRUE(comesTrue([&] { return calls == 1; })) << "what was looked up in vain may be there";
        EXPECT_TRUE(log.lines().empty());
    });
}

TEST_F(Defaults, followFilesAndFoldersThatAreExchanged)
{
    inChild([&] {
        std::atomic<int> calls{0};
        suite()->addObserver("old", [&] { ++calls; });
        EXPECT_TRUE(write("old", "1"));
        EXPECT_TRUE(comesTrue([&] { return calls == 1; }));

        fs::rename(folder, home / "away");
        EXPECT_TRUE(comesTrue([&] { return calls == 2; })) << "gone with its folder";
        fs::copy(home / "away", home / "new");
        fs::rename(home / "new", folder);
        EXPECT_TRUE(comesTrue([&] { return calls == 3; })) << "there again";
        EXPECT_EQ(contents(), "old=1 ");

        for (const char* part : {"", "-wal", "-shm"})
            fs::remove(file.string() + part);
        EXPECT_TRUE(comesTrue([&] { return calls == 4; })) << "gone with the file";
        EXPECT_FALSE(fs::exists(file)) << "and it is not made again unasked";
        EXPECT_TRUE(write("new", "1"));
        EXPECT_EQ(contents(), "new=1 ");
    });
}

TEST_F(Defaults, areReadWhileThreadsWrite)
{
    inChild([&] {
        std::vector<std::thread> writers;
        for (int writer = 0; writer < 4; ++writer)
            writers.emplace_back([writer] {
                for (int i = 1; i <= 25; ++i)
                    suite()->update([=](const DefaultsSnapshot& now) {
                        const auto row = now.row("sum");
                        const int sum = (row ? std::stoi(row->value()) : 0) + 1;
                        return DefaultsChanges{{"sum", std::to_string(sum)},
                                               {std::to_string(writer), std::to_string(i)}};
                    });
            });
        while (contents() != "0=25 1=25 2=25 3=25 sum=100 ")
            suite()->snapshot();
        for (std::thread& writer : writers)
            writer.join();
    });
}

} // namespace
