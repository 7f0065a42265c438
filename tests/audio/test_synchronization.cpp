#include "DXRSynchronization.h"
#include "ReasonOf.h"

#include <stdexcept>
#include <thread>

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
    EXPECT_EQ(order, "a") << "at once when the mutex is free";

    mutex->lock();
    mutex->lock();
    mutex->executeOnUnlock([&] {
        EXPECT_TRUE(isFree(*mutex));
        mutex->executeOnUnlock([&] { order += 'c'; }); // locks again, and runs immediately
        order += 'b';
    });
    mutex->executeOnUnlock([&] { order += 'd'; });
    mutex->executeOnUnlock(nullptr);
    mutex->unlock();
    EXPECT_EQ(order, "a");
    EXPECT_FALSE(isFree(*mutex));
    mutex->unlock();
    EXPECT_EQ(order, "acbd");
}

TEST(DXRMutex, assertsARefusedLockAndAnUnlockTooMany)
{
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_ERRORCHECK);
    const CXRef<DXRMutex> mutex = DXRMutex::initWithAttr(&attributes);
    pthread_mutexattr_destroy(&attributes);
    ASSERT_TRUE(mutex->trylock());
    EXPECT_FALSE(mutex->trylock()) << "not recursive";
    EXPECT_THROW(mutex->lock(), CXException);
    mutex->unlock();
    EXPECT_TRUE(isFree(*mutex)) << "held once";
    const std::string reason = reasonOf([&] { mutex->unlock(); });
    EXPECT_TRUE(reason.starts_with("-[DXRMutex unlock] - _count > 0 DXRSynchronization:")) << reason;
}

TEST(DXRMutex, holdsTheLockForABlockAndReturnsItsResult)
{
    const CXRef<DXRMutex> mutex = DXRMutex::init();
    const CXRef<CXObject> object = mutex;
    const auto isHeld = [&](const CXRef<CXObject>& given) { return given == object && !isFree(*mutex); };
    mutex->execute(object, [&](const CXRef<CXObject>& given) { EXPECT_TRUE(isHeld(given)); });
    EXPECT_TRUE(mutex->execond(object, isHeld));
    EXPECT_EQ(mutex->execobj(object, [](const CXRef<CXObject>& given) { return given; }), object);

    mutex->lock(); // an empty block takes no lock
    mutex->execute(nullptr);
    EXPECT_FALSE(mutex->execond(nullptr));
    EXPECT_FALSE(mutex->execobj(nullptr));
    mutex->unlock();
    EXPECT_THROW(mutex->execute([] { throw std::runtime_error("x"); }), std::runtime_error);
    EXPECT_TRUE(isFree(*mutex));
}

} // namespace
