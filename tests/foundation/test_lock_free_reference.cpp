#include "CXLockFreeReference.h"
#include "ReasonOf.h"

#include <atomic>
#include <thread>

namespace {

/// Counts live objects; isWhole() returns false for a destroyed object.
class Witness final : public CXTFAObject {
public:
    Witness() { ++alive; }
    static CXRef<Witness> init() { return CXRef<Witness>::adopt(new Witness); }
    static inline std::atomic<int> alive{0};
    bool isWhole() const noexcept { return _mark == 0x5EED; }

private:
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

class CXLockFreeReferences : public testing::Test {
protected:
    ~CXLockFreeReferences() override { EXPECT_EQ(Witness::alive, 0); }
};

TEST_F(CXLockFreeReferences, replacesOnlyWhatIsExpectedAndStepsItsGeneration)
{
    const CXRef<Witness> a = Witness::init(), b = Witness::init();
    const CXRef<CXLockFreeReference> reference = CXLockFreeReference::init();
    EXPECT_EQ(reference->copyObjectReference(), nullptr);
    EXPECT_FALSE(reference->setObjectReference(a, b));
    EXPECT_EQ(reference->packedWord(), word(0, 1023));

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
}

TEST_F(CXLockFreeReferences, assertsWhenItsSlotsRunOutAndKeepsWhatItHolds)
{
    const CXRef<Witness> object = Witness::init();
    const CXRef<CXLockFreeReference> reference = CXLockFreeReference::initWithObjectReference(object);
    for (uint32_t index = 1; index < 1023; ++index)
        ASSERT_EQ(reference->setObjectAtFreeIndex(CXRef<Witness>(object).leak()), index);
    EXPECT_EQ(reasonOf([&] { reference->setObjectReference(Witness::init()); }), "CXLockFreeReference:336");
    EXPECT_EQ(reasonOf([&] { reference->setObjectAtFreeIndex(object.get()); }), "CXLockFreeReference:336");
    EXPECT_EQ(reference->copyObjectReference(), object);
    EXPECT_EQ(reference->packedWord(), word(1, 0)) << "the failed replacement counts as no reader";
    EXPECT_TRUE(reference->setObjectReference(nullptr, object)) << "clearing needs no slot";
}

// tests/models explores every interleaving of two readers and two writers; this tests what the model leaves
// out: memory orders, slots that are reused often, and objects that are destroyed on any thread.
TEST_F(CXLockFreeReferences, givesReadersNoDestroyedObject)
{
    const auto reference = CXLockFreeReference::initWithObjectReference(Witness::init());
    std::atomic<int> writing{2}, broken{0};
    const auto write = [&](bool clears) {
        for (int i = 0; i < 100'000; ++i)
            reference->setObjectReference(clears && i % 16 == 0 ? nullptr : Witness::init());
        --writing;
    };
    const auto read = [&] {
        while (writing > 0) {
            const CXRealtimeScope realtime;
            const auto object = CXRefCast<Witness>(reference->copyObjectReference());
            if (object && !object->isWhole())
                ++broken;
        }
    };
    std::thread threads[] = {std::thread(read), std::thread(read), std::thread(write, true),
                             std::thread(write, false)};
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(broken, 0);
    EXPECT_LE(Witness::alive, 1);
    EXPECT_EQ(reference->packedWord() & 0xFFF, 0U) << "every reader has left";
}

} // namespace
