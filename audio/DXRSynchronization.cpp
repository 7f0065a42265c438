#include "DXRSynchronization.h"

#include "CXErrorAdditions.h"

#include <utility>

namespace {

/// Holds a mutex while it exists, using DXRMutex's lock and unlock.
class Hold {
public:
    explicit Hold(DXRMutex& mutex) : _mutex(mutex) { _mutex.lock(); }
    ~Hold() noexcept(false) { _mutex.unlock(); }
    Hold(const Hold&) = delete;
    Hold& operator=(const Hold&) = delete;

private:
    DXRMutex& _mutex;
};

} // namespace

CXRef<DXRMutex> DXRMutex::initWithAttr(const pthread_mutexattr_t* attributes)
{
    CXRef<DXRMutex> mutex = CXRef<DXRMutex>::adopt(new DXRMutex(attributes));
    return mutex->_error == 0 ? mutex : nullptr;
}

DXRMutex::DXRMutex(const pthread_mutexattr_t* attributes) noexcept
    : _mutex(), _error(pthread_mutex_init(&_mutex, attributes))
{}

DXRMutex::~DXRMutex()
{
    if (_error == 0)
        pthread_mutex_destroy(&_mutex);
}

CXRef<DXRRecursiveMutex> DXRRecursiveMutex::init()
{
    pthread_mutexattr_t attributes;
    pthread_mutexattr_init(&attributes);
    pthread_mutexattr_settype(&attributes, PTHREAD_MUTEX_RECURSIVE);
    CXRef<DXRRecursiveMutex> mutex = CXRef<DXRRecursiveMutex>::adopt(new DXRRecursiveMutex(&attributes));
    pthread_mutexattr_destroy(&attributes);
    return mutex->_error == 0 ? mutex : nullptr;
}

void DXRMutex::lock()
{
    if (pthread_mutex_lock(&_mutex) != 0) // an error-checking mutex that this thread holds
        _CXFailedAssertion("-[DXRMutex lock]", "pthread_mutex_lock(&_mutex) == 0", "DXRSynchronization",
                           __LINE__);
    ++_count;
}

bool DXRMutex::trylock()
{
    if (pthread_mutex_trylock(&_mutex) != 0)
        return false;
    ++_count;
    return true;
}

void DXRMutex::unlock()
{
    if (_count == 0)
        _CXFailedAssertion("-[DXRMutex unlock]", "_count > 0", "DXRSynchronization", __LINE__);
    std::vector<CXBlock<void()>> actions;
    if (--_count == 0)
        std::swap(actions, _actions);
    pthread_mutex_unlock(&_mutex);
    for (const CXBlock<void()>& action : actions)
        action();
}

void DXRMutex::execute(CXBlockRef<void()> block)
{
    if (!block)
        return;
    const Hold hold(*this);
    block();
}

bool DXRMutex::execond(CXBlockRef<bool()> block)
{
    if (!block)
        return false;
    const Hold hold(*this);
    return block();
}

CXRef<CXObject> DXRMutex::execobj(CXBlockRef<CXRef<CXObject>()> block)
{
    if (!block)
        return nullptr;
    const Hold hold(*this);
    return block();
}

void DXRMutex::executeOnUnlock(const CXBlock<void()>& block)
{
    if (!block)
        return;
    const Hold hold(*this);
    _actions.push_back(block);
}

bool DXRAtomicCompareExchangeUInt32(uint32_t expected, uint32_t newValue, uint32_t* value) noexcept
{
    return __atomic_compare_exchange_n(value, &expected, newValue, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
}
