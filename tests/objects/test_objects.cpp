#include "CXBlockRef.h"
#include "CXRealtime.h"
#include "CXWeak.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <malloc.h>
#include <string>
#include <thread>
#include <vector>

namespace {

class Counted final : public CXObject {
public:
    static CXRef<Counted> init(std::atomic<int>& ended) { return CXRef<Counted>::adopt(new Counted(ended)); }

private:
    explicit Counted(std::atomic<int>& ended) : _ended(ended) {}
    ~Counted() override { ++_ended; }
    std::atomic<int>& _ended;
};

TEST(CXWeak, sharesAndFreesItsControlBlock)
{
    const size_t before = mallinfo2().uordblks;
    std::atomic<int> ended{0};
    for (int i = 0; i < 1000; ++i) {
        CXRef<Counted> object = Counted::init(ended);
        CXWeak<Counted> copy;
        {
            const CXWeak<Counted> weak(object);
            copy = CXWeak<Counted>(weak);
        }
        EXPECT_EQ(copy.lock(), object);
        const CXWeak<Counted> ofNothing = CXWeak<Counted>(), copyOfNothing(ofNothing);
        EXPECT_FALSE(copyOfNothing.lock());
        object = nullptr;
        EXPECT_FALSE(copy.lock());
    }
    EXPECT_EQ(ended, 1000);
    EXPECT_LT(mallinfo2().uordblks, before + 1000 * sizeof(void*));
}

TEST(CXRealtimeScope, isCheckedUntilItEndsAndOutsideExemptions)
{
    std::string seen; // short enough not to allocate
    const auto see = [&seen] { seen += CXRealtimeScope::isChecked() ? 'c' : '-'; };
    {
        const CXRealtimeScope scope;
        see();
        {
            const CXRealtimeScope inner;
            const CXRealtimeExemption exemption("the test's");
            see();
            (void)CXRealtimeExemption("nested");
            see();
        }
        see();
    }
    see();
    EXPECT_EQ(seen, "c--c-");
}

// The strong count moves to the control block while other threads change it. No change may be lost, and the
// object must be destroyed exactly once, on the thread that releases it last.
TEST(CXObject, losesNoCountWhileTheFirstWeakReferenceIsMade)
{
    constexpr int rounds = 2000;
    std::atomic<int> ended{0};
    for (int round = 0; round < rounds; ++round) {
        CXRef<Counted> object = Counted::init(ended);
        std::atomic<int> ready{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < 3; ++t) {
            threads.emplace_back([&ready, t, mine = object]() mutable {
                for (++ready; ready < 3;)
                    std::this_thread::yield();
                const CXWeak<Counted> weak = t == 0 ? CXWeak<Counted>() : CXWeak<Counted>(mine);
                for (int i = 0; i < 20; ++i)
                    const CXRef<Counted> copy = mine;
                mine = nullptr;
                if (const CXRef<Counted> again = weak.lock()) {
                    EXPECT_FALSE(again->description().empty());
                }
            });
        }
        object = nullptr;
        for (std::thread& thread : threads)
            thread.join();
    }
    EXPECT_EQ(ended, rounds);
}

int twice(int number)
{
    return 2 * number;
}

TEST(CXBlock, hasTheIdentityOfItsFirstBlock)
{
    int calls = 0;
    const CXBlock<int(int)> block = [&calls](int add) { return calls += add; }, copy = block;
    EXPECT_EQ(copy(2), 2);
    EXPECT_EQ(block(3), 5);
    EXPECT_TRUE(block == copy);
    EXPECT_FALSE(block == CXBlock<int(int)>([](int) { return 0; }));
    int (*const function)(int) = std::abs;
    int (*const nullFunction)(int) = nullptr;
    EXPECT_FALSE(CXBlock<int(int)>(nullFunction));
    EXPECT_FALSE(CXBlock<int(int)>(std::function<int(int)>()));
    EXPECT_FALSE(CXBlockRef<int(int)>(nullFunction));
    EXPECT_EQ(CXBlock<int(int)>(std::function<int(int)>(block))(1), 6);
    EXPECT_EQ(CXBlock<int(int)>(function)(-3), 3);
    const CXBlock<int(int)> named = twice; // decays to a pointer
    const CXBlockRef<int(int)> namedRef = twice;
    EXPECT_EQ(named(2) + namedRef(3), 10);
    const CXBlock<size_t(const std::string&)> member = &std::string::size;
    const auto pointer = &std::string::size;
    EXPECT_EQ(member("abc") + CXBlockRef<size_t(const std::string&)>(pointer)("ab"), 5U);
}

} // namespace
