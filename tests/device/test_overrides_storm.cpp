#include "DXRDeviceOverrides.h"
#include "DefaultsSuite.h"
#include "Random.h"

#include <gtest/gtest.h>

#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string>
#include <sys/mman.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>
#include <vector>

// Eight processes write the settings of the same devices and of one each of their own, while one of them is killed every
// 50 ms and starts again.

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr uint32_t writerCount = 8;
constexpr uint32_t sharedDeviceCount = 2;
constexpr uint32_t deviceCount = sharedDeviceCount + writerCount;

/// What the processes tell one another outside the store.
struct Board {
    enum Phase : int { Writing, Comparing };
    std::atomic<int> phase;
    /// Of each writer and device, the number that was last known to be on the disk.
    std::array<std::array<std::atomic<int64_t>, deviceCount>, writerCount> committed;
    std::atomic<int64_t> commits, lost, torn;
    std::array<std::atomic<bool>, writerCount> hasAgreed;
    std::array<char, 1U << 20> finalContents;
};

std::string keyOf(uint32_t writer)
{
    return "writer" + std::to_string(writer);
}

/// A value that shows when a part of it is another's.
CXPlist valueOf(int64_t number)
{
    return {{"n", number},
            {"again", number},
            {"text", std::string(static_cast<size_t>(number * 37 % 3000), 'x')}};
}

/// The number in a writer's value on a device; 0 when there is none.
int64_t numberIn(const CXPlist& value, Board& board)
{
    if (value.is_null())
        return 0;
    const int64_t number = value.is_object() ? value.value("n", int64_t{-1}) : -1;
    if (number < 0 || value != valueOf(number))
        ++board.torn;
    return number;
}

class Devices {
public:
    Devices()
    {
        for (uint32_t device = 0; device < deviceCount; ++device)
            _overrides.push_back(DXRDeviceOverrides::initWithDeviceReference(
                DXRDeviceReference::initWithString(R"({"uid":"device)" + std::to_string(device) + R"("})")));
    }
    DXRDeviceOverrides& operator[](uint32_t device) const { return *_overrides[device]; }
    std::string contents() const
    {
        std::string text;
        for (const CXRef<DXRDeviceOverrides>& overrides : _overrides)
            for (uint32_t writer = 0; writer < writerCount; ++writer)
                text += overrides->objectForKey(keyOf(writer)).dump() + "\n";
        return text;
    }

private:
    std::vector<CXRef<DXRDeviceOverrides>> _overrides;
};

[[noreturn]] void runWriter(uint32_t writer, Board& board, uint32_t seed)
{
    const Devices devices;
    const CXRef<dxr::DefaultsSuite> suite = dxr::DefaultsSuite::suiteNamed("com.veltorrin.device-overrides");
    std::array<int64_t, deviceCount> numbers{};
    for (uint32_t device = 0; device < deviceCount; ++device) {
        numbers[device] = numberIn(devices[device].objectForKey(keyOf(writer)), board);
        if (numbers[device] < board.committed[writer][device])
            ++board.lost;
    }
    Random random(seed);
    while (board.phase == Board::Writing) {
        const uint32_t choice = random.below(sharedDeviceCount + 1);
        const uint32_t device = choice < sharedDeviceCount ? choice : sharedDeviceCount + writer;
        devices[device].setObject(valueOf(++numbers[device]), keyOf(writer));
        if (suite->synchronize()) {
            board.committed[writer][device] = numbers[device];
            ++board.commits;
        }
        numberIn(devices[random.below(deviceCount)].objectForKey(keyOf(random.below(writerCount))), board);
    }
    const Clock::time_point deadline = Clock::now() + 20s;
    while (!board.hasAgreed[writer] && Clock::now() < deadline) {
        board.hasAgreed[writer] = devices.contents() == board.finalContents.data();
        std::this_thread::sleep_for(1ms);
    }
    _exit(0);
}

TEST(OverridesStorm, losesNoCommittedWriteAndAgreesInTheEnd)
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
    int kills = 0;
    for (const auto end = Clock::now() + std::chrono::seconds(DXR_STORM_SECONDS); Clock::now() < end;
         ++kills) {
        std::this_thread::sleep_for(50ms);
        const uint32_t victim = random.below(writerCount);
        kill(writers[victim], SIGKILL);
        waitpid(writers[victim], nullptr, 0);
        start(victim);
    }
    std::this_thread::sleep_for(300ms); // the last to start see others write, too
    // Everybody ends the write at hand before the contents count as final, which they do when they stay.
    board.finalContents[0] = '\0';
    const int64_t commitsBefore = board.commits;
    board.phase = Board::Comparing;
    const Clock::time_point stopped = Clock::now();
    const Devices devices;
    std::string contents;
    while (contents != devices.contents() || board.finalContents[0] == '\0') {
        contents = devices.contents();
        std::this_thread::sleep_for(50ms);
        if (contents == devices.contents())
            std::memcpy(board.finalContents.data(), contents.c_str(), contents.size() + 1);
    }
    for (const pid_t writer : writers)
        waitpid(writer, nullptr, 0);
    const auto agreedAfter = std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - stopped);

    for (uint32_t writer = 0; writer < writerCount; ++writer) {
        EXPECT_TRUE(board.hasAgreed[writer]) << writer;
        for (uint32_t device = 0; device < deviceCount; ++device)
            EXPECT_GE(numberIn(devices[device].objectForKey(keyOf(writer)), board),
                      board.committed[writer][device])
                << "writer " << writer << ", device " << device;
    }
    EXPECT_EQ(board.lost, 0);
    EXPECT_EQ(board.torn, 0);
    EXPECT_GT(commitsBefore, 0);
    std::printf("%lld commits by %u processes, %d kills; 0 lost, 0 torn expected: %lld, %lld; all agreed "
                "within %lld ms\n",
                static_cast<long long>(board.commits), writerCount, kills, static_cast<long long>(board.lost),
                static_cast<long long>(board.torn), static_cast<long long>(agreedAfter.count()));
}

} // namespace
