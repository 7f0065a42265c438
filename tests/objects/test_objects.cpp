#include "CXBlockRef.h"
#include "CXRealtime.h"
#include "CXWeak.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <functional>
#include <malloc.h>
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

TEST(CXObject, livesAsLongAsAStrongReferenceWithOrWithoutWeakOnes)
{
    std::atomic<int> ended{0};
    CXWeak<Counted> weak;
    {
        CXRef<Counted> first = Counted::init(ended);
        const CXRef<CXObject> second = first;
        first = nullptr;
        EXPECT_EQ(ended, 0);
        weak = CXWeak<Counted>(CXRefCast<Counted>(second));
        EXPECT_EQ(weak.lock(), second);
    }
    EXPECT_EQ(ended, 1);
    EXPECT_FALSE(weak.lock());

    CXRef<Counted> last = Counted::init(ended);
    weak = CXWeak<Counted>(last);
    CXWeak<Counted> copy = weak;
    CXWeak<Counted> moved = std::move(weak);
    EXPECT_EQ(copy.lock(), last);
    EXPECT_EQ(moved.lock(), last);
    Counted* const leaked = last.leak();
    EXPECT_EQ(last, nullptr);
    leaked->release();
    EXPECT_EQ(ended, 2);
    EXPECT_FALSE(moved.lock());
}

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
    EXPECT_FALSE(CXRealtimeScope::isChecked());
    bool isChecked[4] = {};
    {
        const CXRealtimeScope scope;
        isChecked[0] = CXRealtimeScope::isChecked();
        {
            const CXRealtimeScope inner;
            const CXRealtimeExemption exemption("the test's");
            isChecked[1] = CXRealtimeScope::isChecked();
            {
                const CXRealtimeExemption again("nested");
            }
            isChecked[2] = CXRealtimeScope::isChecked();
        }
        isChecked[3] = CXRealtimeScope::isChecked();
    }
    EXPECT_EQ(std::vector<bool>(std::begin(isChecked), std::end(isChecked)),
              (std::vector<bool>{true, false, false, true}));
    EXPECT_FALSE(CXRealtimeScope::isChecked());
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

TEST(CXBlock, hasTheIdentityOfItsFirstBlock)
{
    int calls = 0;
    const CXBlock<int(int)> block = [&calls](int add) { return calls += add; };
    const CXBlock<int(int)> copy = block;
    const CXBlock<int(int)> other = [](int) { return 0; };
    EXPECT_EQ(copy(2), 2);
    EXPECT_EQ(block(3), 5);
    EXPECT_TRUE(block == copy);
    EXPECT_FALSE(block == other);
    int (*const function)(int) = std::abs;
    int (*const nullFunction)(int) = nullptr;
    EXPECT_FALSE(CXBlock<int(int)>());
    EXPECT_FALSE(CXBlock<int(int)>(nullFunction));
    EXPECT_FALSE(CXBlock<int(int)>(std::function<int(int)>()));
    EXPECT_FALSE(CXBlockRef<int(int)>(nullFunction));
    EXPECT_EQ(CXBlock<int(int)>(std::function<int(int)>(block))(1), 6);
    EXPECT_EQ(CXBlock<int(int)>(function)(-3), 3);
}

} // namespace
