#include "DefaultsSuite.h"
#include "Random.h"

#include <gtest/gtest.h>

#include <array>
#include <csignal>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

// Eight processes increment counters in one suite, each its own and all of them a common one, while every 50
// ms one process is killed and restarted. A stored value is never lost, an edit is stored as a whole, and all
// processes see the same values in the end.

namespace {

using namespace std::chrono_literals;
using dxr::DefaultsChanges;
using dxr::DefaultsSnapshot;
using dxr::DefaultsSuite;
using Clock = std::chrono::steady_clock;

constexpr uint32_t writerCount = 8;

/// Shared memory of the processes.
struct Board {
    std::atomic<bool> isOver;
    std::array<std::atomic<int64_t>, writerCount> stored; ///< lower bound of each process's count on disk
    std::atomic<uint32_t> lost, ended, agreed;
};

std::string nameOf(uint32_t writer)
{
    return "writer" + std::to_string(writer);
}

int64_t countIn(const DefaultsSnapshot& snapshot, const std::string& key)
{
    const auto row = snapshot.row(key);
    return row ? std::stoll(row->value()) : 0;
}

[[noreturn]] void runWriter(uint32_t writer, Board& board, uint32_t seed)
{
    const CXRef<DefaultsSuite> suite = DefaultsSuite::suiteNamed("storm");
    const std::string name = nameOf(writer);
    if (countIn(*suite->snapshot(), name) < board.stored[writer])
        ++board.lost;
    Random random(seed);
    for (bool isOver = false; !isOver; isOver = board.isOver) {
        suite->update([name](const DefaultsSnapshot& now) {
            const int64_t own = countIn(now, name) + 1;
            return DefaultsChanges{{name, std::to_string(own)},
                                   {"sum", std::to_string(countIn(now, "sum") + 1)}};
        });
        const int64_t count = countIn(*suite->snapshot(), name);
        if (suite->synchronize())
            board.stored[writer] = count;
        std::this_thread::sleep_for(std::chrono::microseconds(random.below(500)));
    }
    while (!suite->synchronize()) {
    }
    board.stored[writer] = countIn(*suite->snapshot(), name);
    ++board.ended;
    const Clock::time_point deadline = Clock::now() + 40s;
    for (bool hasAgreed = false; !hasAgreed && Clock::now() < deadline; std::this_thread::sleep_for(1ms)) {
        int64_t sum = 0;
        for (const auto& each : board.stored)
            sum += each;
        hasAgreed = board.ended == writerCount && countIn(*suite->snapshot(), "sum") == sum;
        board.agreed += hasAgreed ? 1 : 0;
    }
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
        const uint32_t seed = random.below(1U << 30);
        writers[writer] = fork();
        if (writers[writer] == 0)
            runWriter(writer, board, seed);
    };
    for (uint32_t writer = 0; writer < writerCount; ++writer)
        start(writer);
    const char* const seconds = std::getenv("DXR_SOAK_SECONDS");
    for (const auto end = Clock::now() + std::chrono::seconds(seconds ? std::atoi(seconds) : 3);
         Clock::now() < end;) {
        std::this_thread::sleep_for(50ms);
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
    int64_t sum = 0;
    for (uint32_t writer = 0; writer < writerCount; ++writer) {
        sum += countIn(*last, nameOf(writer));
        EXPECT_GE(countIn(*last, nameOf(writer)), board.stored[writer]);
    }
    EXPECT_EQ(countIn(*last, "sum"), sum) << "an edit was stored in part";
}

} // namespace
