#include "CXLockFreeReference.h"

#include "BackOff.h"
#include "CXErrorAdditions.h"
#include "TFA.h"

#include <utility>

namespace {

// A reader changes both the word and the object's count twice. A thread whose exchange failed waits for the
// duration of many reads, because otherwise both threads spend their time on fetching the two cache lines.
constexpr uint32_t pausesAfterLoss = 24;

constexpr uint64_t readerMask = 0xFFF;
constexpr unsigned indexShift = 12;
constexpr uint64_t indexMask = 0x3FF;
constexpr uint64_t generationMask = 0x3FFFFFFFFFC00000;
constexpr uint64_t generationAndIndexMask = 0x3FFFFFFFFFFFF000;
constexpr uint64_t generationStep = 0x400000;
constexpr uint64_t initialWord = 0x3FF000; // no object

constexpr uint32_t indexOf(uint64_t word) noexcept
{
    return static_cast<uint32_t>(word >> indexShift & indexMask);
}

constexpr bool isSameObject(uint64_t a, uint64_t b) noexcept
{
    return ((a ^ b) & generationAndIndexMask) == 0;
}

/// Clients may know these messages, so the line numbers stay the same.
void assertThat(bool condition, long line)
{
    if (!condition)
        _CXFailedAssertion(nullptr, nullptr, "CXLockFreeReference", line);
}

} // namespace

CXRef<CXLockFreeReference> CXLockFreeReference::init()
{
    CXRef<CXLockFreeReference> reference = CXRef<CXLockFreeReference>::adopt(new CXLockFreeReference);
    return reference && reference->_buckets ? reference : nullptr;
}

CXRef<CXLockFreeReference> CXLockFreeReference::initWithObjectReference(const CXRef<CXObject>& object)
{
    CXRef<CXLockFreeReference> reference = init();
    if (reference)
        reference->setObjectReference(object);
    return reference;
}

CXLockFreeReference::CXLockFreeReference() noexcept
    : _girc(initialWord), _buckets(static_cast<Bucket*>(TFA_calloc(1, sizeof(Bucket))))
{}

CXLockFreeReference::~CXLockFreeReference()
{
    while (Bucket* const bucket = _buckets) {
        for (std::atomic<CXObject*>& slot : bucket->slots) {
            if (const CXObject* const object = slot.load(std::memory_order_acquire))
                object->release();
        }
        _buckets = bucket->next.load(std::memory_order_acquire);
        TFA_free(bucket);
    }
}

CXRef<CXObject> CXLockFreeReference::copyObjectReference() const
{
    const Reading reading = _enter(112);
    if (indexOf(reading.word) == noObject)
        return nullptr;
    assertThat(reading.object != nullptr, 119);
    reading.object->retain();
    _leave(reading, 135);
    return CXRef<CXObject>::adopt(reading.object);
}

/// Finds the current object and counts the caller as its reader.
CXLockFreeReference::Reading CXLockFreeReference::_enter(long overflowLine) const
{
    dxr::BackOff backOff(pausesAfterLoss);
    uint64_t word = _girc.load(std::memory_order_acquire);
    for (;;) {
        if (indexOf(word) == noObject)
            return {word, nullptr};
        assertThat((word & readerMask) != readerMask, overflowLine);
        // The slot may hold another object by now; the word has changed then, and the exchange fails.
        CXObject* const object = getObjectAtIndex(indexOf(word));
        if (_girc.compare_exchange_strong(word, word + 1))
            return {word, object};
        backOff.wait();
        word = _girc.load(std::memory_order_acquire);
    }
}

/// Removes the caller from the readers' count. If a writer has replaced the object and retained it for the
/// caller, releases that retain instead. The caller keeps the retain that it made itself.
void CXLockFreeReference::_leave(const Reading& reading, long underflowLine) const
{
    dxr::BackOff backOff(pausesAfterLoss);
    uint64_t word = reading.word + 1; // the value that this reader stored, usually still current
    while (isSameObject(word, reading.word)) {
        assertThat((word & readerMask) != 0, underflowLine);
        if (_girc.compare_exchange_strong(word, word - 1))
            return;
        backOff.wait();
        word = _girc.load(std::memory_order_acquire);
    }
    reading.object->release();
}

void CXLockFreeReference::setObjectReference(const CXRef<CXObject>& object)
{
    while (!setObjectReference(object, copyObjectReference())) {
    }
}

bool CXLockFreeReference::setObjectReference(const CXRef<CXObject>& object, const CXRef<CXObject>& expected)
{
    if (object == expected)
        return true;
    const Reading old = _enter(180);
    if (old.object != expected.get()) {
        if (old.object)
            _leave(old, 206);
        return false;
    }
    if (old.object)
        old.object->retain();

    uint32_t newIndex = noObject;
    if (object) {
        object->retain();
        newIndex = _claimSlot(object.get());
        if (newIndex >= noObject) {
            object->release();
            if (old.object) {
                _leave(old, 206);
                old.object->release();
            }
            assertThat(false, 336);
        }
    }
    const bool isReplaced = _replace(old, newIndex);
    if (isReplaced && old.object)
        setObject(nullptr, indexOf(old.word));
    if (!isReplaced && object) {
        setObject(nullptr, newIndex);
        object->release();
    }
    if (old.object) {
        old.object->release(); // this thread's own retain
        old.object->release(); // the slot's retain, or the one that another writer made for this thread
    }
    return isReplaced;
}

/// Makes `newIndex` current if the object that `old` found is still current. If that is not null, the caller
/// must be counted as its reader; this function retains the object for each other counted reader.
bool CXLockFreeReference::_replace(const Reading& old, uint32_t newIndex)
{
    dxr::BackOff backOff(pausesAfterLoss);
    uint64_t word = _girc.load(std::memory_order_acquire);
    while (isSameObject(word, old.word)) {
        uint64_t others = 0;
        if (old.object) {
            assertThat((word & readerMask) != 0, 250);
            others = (word & readerMask) - 1;
        }
        for (uint64_t i = 0; i < others; ++i)
            old.object->retain();
        const uint64_t wanted = ((word + generationStep) & generationMask) | static_cast<uint64_t>(newIndex)
                                                                                 << indexShift;
        if (_girc.compare_exchange_strong(word, wanted))
            return true;
        for (uint64_t i = 0; i < others; ++i)
            old.object->release();
        backOff.wait();
        word = _girc.load(std::memory_order_acquire);
    }
    return false;
}

CXObject* CXLockFreeReference::getObjectAtIndex(uint32_t index) const noexcept
{
    const Bucket* bucket = _buckets;
    for (; index >= slotsPerBucket; index -= slotsPerBucket)
        bucket = bucket->next.load(std::memory_order_acquire);
    return bucket->slots[index].load(std::memory_order_acquire);
}

void CXLockFreeReference::setObject(CXObject* object, uint32_t index) noexcept
{
    Bucket* bucket = _buckets;
    for (; index >= slotsPerBucket; index -= slotsPerBucket)
        bucket = bucket->next.load(std::memory_order_acquire);
    bucket->slots[index].store(object, std::memory_order_release);
}

uint32_t CXLockFreeReference::setObjectAtFreeIndex(CXObject* object)
{
    assertThat(object != nullptr, 325);
    const uint32_t index = _claimSlot(object);
    assertThat(index < noObject, 336);
    return index;
}

/// Stores `object` in a free slot. Returns the slot's index, or noObject if no slot is available.
uint32_t CXLockFreeReference::_claimSlot(CXObject* object) noexcept
{
    Bucket* bucket = _buckets;
    for (uint32_t index = 0; index < noObject;) {
        std::atomic<CXObject*>& slot = bucket->slots[index % slotsPerBucket];
        if (slot.load(std::memory_order_relaxed) == nullptr) {
            CXObject* free = nullptr;
            if (slot.compare_exchange_strong(free, object))
                return index;
            bucket = _buckets; // another thread took it; a lower slot may be free by now
            index = 0;
        } else if (++index % slotsPerBucket == 0) {
            bucket = _bucketAfter(*bucket);
            if (!bucket)
                break;
        }
    }
    return noObject;
}

/// Returns the bucket after `bucket`, creating it if necessary, or null if memory cannot be allocated.
CXLockFreeReference::Bucket* CXLockFreeReference::_bucketAfter(Bucket& bucket) noexcept
{
    Bucket* next = bucket.next.load(std::memory_order_acquire);
    if (next)
        return next;
    auto* const fresh = static_cast<Bucket*>(TFA_calloc(1, sizeof(Bucket)));
    if (!fresh || bucket.next.compare_exchange_strong(next, fresh))
        return fresh;
    TFA_free(fresh);
    return next; // created by another thread
}
