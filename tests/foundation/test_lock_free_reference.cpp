#include "CXLockFreeReference.h"
#include "ReasonOf.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>
#include <vector>

namespace {

/// Counts live objects; isWhole() returns false for a destroyed object.
class Witness final : public CXTFAObject {
public:
    static CXRef<Witness> init() { return CXRef<Witness>::adopt(new Witness); }
    static inline std::atomic<int> alive{0};
    bool isWhole() const noexcept { return _mark == 0x5EED; }

private:
    Witness() { ++alive; }
    ~Witness() override
    {
        _mark = 0;
        --alive;
    }
    std::atomic<int> _mark{0x5EED};
};

constexpr uint64_t word(uint64_t generation, uint64_t index)
{
    return generation << 22 | index << 12;
}

TEST(CXLockFreeReference, replacesOnlyWhatIsExpectedAndStepsItsGeneration)
{
    {
        const CXRef<Witness> a = Witness::init();
        const CXRef<Witness> b = Witness::init();
        const CXRef<CXLockFreeReference> reference = CXLockFreeReference::init();
        EXPECT_EQ(reference->copyObjectReference(), nullptr);
        EXPECT_FALSE(reference->setObjectReference(a, b));
        EXPECT_EQ(reference->packedWord(), 0x3FF000U);

        EXPECT_TRUE(reference->setObjectReference(a, nullptr));
        EXPECT_EQ(reference->packedWord(), word(1, 0));
        EXPECT_FALSE(reference->setObjectReference(b, nullptr));
        EXPECT_FALSE(reference->setObjectReference(nullptr, b));
        EXPECT_TRUE(reference->setObjectReference(b, b)) << "equal arguments change nothing";
        EXPECT_EQ(reference->copyObjectReference(), a);
        EXPECT_EQ(reference->packedWord(), word(1, 0));

        EXPECT_TRUE(reference->setObjectReference(b, a));
        EXPECT_EQ(reference->packedWord(), word(2, 1));
        EXPECT_EQ(reference->getObjectAtIndex(0), nullptr);
        reference->setObjectReference(nullptr);
        EXPECT_EQ(reference->packedWord(), word(3, 1023));
        reference->setObjectReference(a);
        EXPECT_EQ(reference->packedWord(), word(4, 0)) << "a cleared slot is used again";
        EXPECT_EQ(CXLockFreeReference::initWithObjectReference(b)->copyObjectReference(), b);
        EXPECT_EQ(Witness::alive, 2);
    }
    EXPECT_EQ(Witness::alive, 0);
}

TEST(CXLockFreeReference, assertsWhenItsSlotsRunOutAndKeepsWhatItHolds)
{
    {
        const CXRef<Witness> object = Witness::init();
        const CXRef<CXLockFreeReference> reference = CXLockFreeReference::initWithObjectReference(object);
        for (uint32_t index = 1; index < 1023; ++index)
            ASSERT_EQ(reference->setObjectAtFreeIndex(CXRef<Witness>(object).leak()), index);
        EXPECT_EQ(reasonOf([&] { reference->setObjectAtFreeIndex(object.get()); }),
                  "CXLockFreeReference:336");
        EXPECT_EQ(reasonOf([&] { reference->setObjectAtFreeIndex(nullptr); }), "CXLockFreeReference:325");
        EXPECT_EQ(reasonOf([&] { reference->setObjectReference(Witness::init()); }),
                  "CXLockFreeReference:336");
        EXPECT_EQ(reference->copyObjectReference(), object);
        EXPECT_EQ(reference->packedWord(), word(1, 0)) << "the failed replacement counts as no reader";
        EXPECT_TRUE(reference->setObjectReference(nullptr, object)) << "clearing needs no slot";
    }
    EXPECT_EQ(Witness::alive, 0) << "what the slots still hold goes with the reference";
}

// tests/models explores every interleaving of two readers and two writers; this tests what the model leaves
// out: memory orders, slots that are reused often, and objects that are destroyed on any thread.
TEST(CXLockFreeReference, givesReadersNoDestroyedObject)
{
    {
        constexpr int readerCount = 2;
        constexpr int writerCount = 2;
        constexpr int replacements = 100'000;
        const CXRef<CXLockFreeReference> reference =
            CXLockFreeReference::initWithObjectReference(Witness::init());
        std::atomic<int> writing{writerCount};
        std::atomic<int> broken{0};
        std::vector<std::thread> threads;
        for (int t = 0; t < readerCount; ++t) {
            threads.emplace_back([&] {
                while (writing > 0) {
                    const CXRealtimeScope realtime;
                    const auto object = CXRefCast<Witness>(reference->copyObjectReference());
                    if (object && !object->isWhole())
                        ++broken;
                }
            });
        }
        for (int t = 0; t < writerCount; ++t) {
            threads.emplace_back([&, t] {
                for (int i = 0; i < replacements; ++i) {
                    if (t == 0 && i % 16 == 0)
                        reference->setObjectReference(nullptr);
                    else
                        reference->setObjectReference(Witness::init());
                }
                --writing;
            });
        }
        for (std::thread& thread : threads)
            thread.join();
        EXPECT_EQ(broken, 0);
        EXPECT_LE(Witness::alive, 1);
        EXPECT_EQ(reference->packedWord() & 0xFFF, 0U) << "every reader has left";
    }
    EXPECT_EQ(Witness::alive, 0);
}

} // namespace
