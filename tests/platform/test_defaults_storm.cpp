#include "DefaultsSuite.h"
#include "Eventually.h"
#include "Random.h"

#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <numeric>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

// Eight processes increment counters in one suite, each its own and all of them a common one, while every 50
// ms one process is killed and restarted. A stored value is never lost, an edit is stored as a whole, and all
// processes see the same values in the end.

namespace {

using dxr::DefaultsChanges, dxr::DefaultsSnapshot, dxr::DefaultsSuite;

constexpr uint32_t writerCount = 8;

/// Shared memory of the processes.
struct Board {
    std::atomic<bool> isOver;
    std::array<std::atomic<int64_t>, writerCount> stored; ///< lower bound of each process's count on disk
    std::atomic<uint32_t> lost, ended, agreed;
};

int64_t countOf(const std::string& key, const DefaultsSnapshot& snapshot)
{
    const auto row = snapshot.row(key);
    return row ? std::stoll(row->value()) : 0;
}

int64_t sumOf(const Board& board)
{
    return std::accumulate(board.stored.begin(), board.stored.end(), int64_t{0});
}

[[noreturn]] void runWriter(uint32_t writer, Board& board)
{
    const CXRef<DefaultsSuite> suite = DefaultsSuite::suiteNamed("storm");
    const std::string name = std::to_string(writer);
    board.lost += countOf(name, *suite->snapshot()) < board.stored[writer] ? 1 : 0;
    Random random(writer);
    bool isStored = false;
    for (bool isOver = false; !isOver || !isStored; isOver = board.isOver) {
        if (!isOver)
            suite->update([name](const DefaultsSnapshot& now) {
                return DefaultsChanges{{name, std::to_string(countOf(name, now) + 1)},
                                       {"sum", std::to_string(countOf("sum", now) + 1)}};
            });
        const int64_t count = countOf(name, *suite->snapshot());
        isStored = suite->synchronize();
        if (isStored)
            board.stored[writer] = count;
        std::this_thread::sleep_for(std::chrono::microseconds(random.below(500)));
    }
    ++board.ended;
    board.agreed += eventually(
        [&] { return board.ended == writerCount && countOf("sum", *suite->snapshot()) == sumOf(board); });
    _exit(0);
}

TEST(DefaultsStorm, losesNoStoredEditAndAgreesInTheEnd)
{
    void* const memory =
        mmap(nullptr, sizeof(Board), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
    ASSERT_NE(memory, MAP_FAILED);
    Board& board = *new (memory) Board{};
    Random random(1);
    std::array<pid_t, writerCount> writers{};
    const auto start = [&](uint32_t writer) {
        writers[writer] = fork();
        if (writers[writer] == 0)
            runWriter(writer, board);
    };
    for (uint32_t writer = 0; writer < writerCount; ++writer)
        start(writer);
    for (int kills = 20 * soakSecondsOr(3); kills > 0; --kills) {
        sleepForMilliseconds(50);
        const uint32_t victim = random.below(writerCount);
        kill(writers[victim], SIGKILL);
        waitpid(writers[victim], nullptr, 0);
        start(victim);
    }
    board.isOver = true;
    for (const pid_t writer : writers)
        waitpid(writer, nullptr, 0);
    EXPECT_EQ(board.agreed, writerCount);
    EXPECT_EQ(board.lost, 0U);
    const CXRef<DefaultsSnapshot> last = DefaultsSuite::suiteNamed("storm")->snapshot();
    for (uint32_t writer = 0; writer < writerCount; ++writer)
        EXPECT_EQ(countOf(std::to_string(writer), *last), board.stored[writer]);
    EXPECT_EQ(countOf("sum", *last), sumOf(board)) << "an edit was stored in part";
}

} // namespace
