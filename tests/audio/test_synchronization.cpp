#include "CXException.h"
#include "DXRSynchronization.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>
#include <vector>

namespace {

bool isFree(DXRMutex& mutex)
{
    bool isTaken = false;
    std::thread([&] {
        isTaken = mutex.trylock();
        if (isTaken)
            mutex.unlock();
    }).join();
    return isTaken;
}

TEST(DXRMutex, runsDeferredWorkAfterTheOutermostUnlockInOrder)
{
    const CXRef<DXRRecursiveMutex> mutex = DXRRecursiveMutex::init();
    std::string order;
    mutex->executeOnUnlock([&] { order += 'a'; });
    EXPECT_EQ(order, "a") << "nobody holds it";

    for (int i = 0; i < 3; ++i)
        mutex->lock();
    mutex->executeOnUnlock([&] {
        EXPECT_TRUE(isFree(*mutex));
        mutex->executeOnUnlock([&] { order += 'c'; }); // locks again, at once
        order += 'b';
    });
    mutex->executeOnUnlock([&] { order += 'd'; });
    mutex->executeOnUnlock(nullptr);
    mutex->unlock();
    mutex->unlock();
    EXPECT_EQ(order, "a");
    EXPECT_FALSE(isFree(*mutex));
    mutex->unlock();
    EXPECT_EQ(order, "acbd");
}

TEST(DXRMutex, assertsALockThatIsRefused)
{
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
    const CXRef<DXRMutex> mutex = DXRMutex::initWithAttr(&attributes);
    pthread_mutexattr_destroy(&attributes);
    mutex->lock();
    EXPECT_THROW(mutex->lock(), CXException);
    mutex->unlock();
    EXPECT_TRUE(isFree(*mutex)) << "held once";
}

TEST(DXRMutex, assertsAnUnlockTooMany)
{
    const CXRef<DXRMutex> mutex = DXRMutex::init();
    ASSERT_TRUE(mutex->trylock());
    EXPECT_FALSE(mutex->trylock()) << "a plain one is not recursive";
    mutex->unlock();
    try {
        mutex->unlock();
        FAIL();
    } catch (const CXException& exception) {
        EXPECT_TRUE(exception.reason()->starts_with("-[DXRMutex unlock] - _count > 0 DXRSynchronization:"))
            << *exception.reason();
    }
}

TEST(DXRMutex, holdsTheLockForWhatItExecutesAndAnswersItsAnswer)
{
    const CXRef<DXRMutex> mutex = DXRMutex::init();
    const CXRef<CXObject> object = mutex;
    mutex->execute([&] { EXPECT_FALSE(isFree(*mutex)); });
    mutex->execute(object, [&](const CXRef<CXObject>& given) { EXPECT_EQ(given, object); });
    EXPECT_TRUE(mutex->execond([&] { return !isFree(*mutex); }));
    EXPECT_FALSE(mutex->execond(object, [&](const CXRef<CXObject>& given) { return !given; }));
    EXPECT_EQ(mutex->execobj([&] { return object; }), object);
    EXPECT_EQ(mutex->execobj(object, [](const CXRef<CXObject>& given) { return given; }), object);

    mutex->lock(); // what is null takes no lock
    mutex->execute(nullptr);
    EXPECT_FALSE(mutex->execond(nullptr));
    EXPECT_FALSE(mutex->execobj(nullptr));
    mutex->unlock();
    EXPECT_THROW(mutex->execute([] { throw std::runtime_error("x"); }), std::runtime_error);
    EXPECT_TRUE(isFree(*mutex));
}

TEST(DXRAtomicCompareExchangeUInt32, losesNoChangeBetweenThreads)
{
    uint32_t value = 7;
    EXPECT_FALSE(DXRAtomicCompareExchangeUInt32(6, 9, &value));
    EXPECT_EQ(value, 7U);
    constexpr uint32_t steps = 20'000;
    std::vector<std::thread> threads;
    for (int t = 0; t < 2; ++t) {
        threads.emplace_back([&] {
            for (uint32_t done = 0; done < steps;) {
                const uint32_t seen = __atomic_load_n(&value, __ATOMIC_RELAXED);
                done += DXRAtomicCompareExchangeUInt32(seen, seen + 1, &value) ? 1 : 0;
            }
        });
    }
    for (std::thread& thread : threads)
        thread.join();
    EXPECT_EQ(value, 7 + 2 * steps);
}

} // namespace
