#pragma once

#include "CXRef.h"
#include "CXTFAObject.h"

#include <atomic>
#include <cstdint>

/// One strong reference that many threads read and sometimes replace, without a lock: a reader gets the
/// object retained, and no object ends while a reader is between finding it and retaining it.
/// Threads:   every call from any thread.
/// Real time: copyObjectReference() always. A replacement too while a slot is free; it allocates four more
///            when none is; the thread that drops the last reference to an object destroys it.
/// Fails:     too many readers or objects at once are our mistake and assert.
class DXR_EXPORT CXLockFreeReference final : public CXTFAObject {
public:
    /// Holds nothing. Null where there is no memory.
    static CXRef<CXLockFreeReference> init();
    /// Holds `object`, or nothing when that is null.
    static CXRef<CXLockFreeReference> initWithObjectReference(const CXRef<CXObject>& object);

    /// The current object, or an empty reference.
    CXRef<CXObject> copyObjectReference() const CX_REALTIME;
    /// Replaces the current object by `object`, which may be null.
    void setObjectReference(const CXRef<CXObject>& object);
    /// Replaces the current object by `object` if it is `expected`; either may be null. False, and no change,
    /// if it is another or another thread was faster. Equal arguments are true without a look at what is
    /// held.
    bool setObjectReference(const CXRef<CXObject>& object, const CXRef<CXObject>& expected);

    /// The object in a slot, or null; not retained, and no promise that it lives on. For tests and for the
    /// steps above, as are the two below.
    CXObject* getObjectAtIndex(uint32_t index) const noexcept CX_REALTIME;
    /// Writes a slot; its old content's reference passes to the caller, that of `object` to the slot.
    void setObject(CXObject* object, uint32_t index) noexcept CX_REALTIME;
    /// Puts `object`, whose reference passes to the slot, into the first free slot, and returns its index.
    uint32_t setObjectAtFreeIndex(CXObject* object);
    /// Generation, index and reader count, packed as below.
    uint64_t packedWord() const noexcept { return _girc.load(std::memory_order_acquire); }

private:
    static constexpr uint32_t slotsPerBucket = 4;
    static constexpr uint32_t noObject = 1023; // an index

    // Four strong references, some of them null, and where there are more. Slots are claimed by an exchange
    // from null and cleared by the thread that replaced the object; buckets are only ever added.
    struct Bucket {
        std::atomic<Bucket*> next;
        std::atomic<CXObject*> slots[slotsPerBucket];
    };

    CXLockFreeReference() noexcept;
    ~CXLockFreeReference() override;

    /// A reader on its way: the word as it was before it was counted there, and the object found. No object:
    /// not counted.
    struct Reading {
        uint64_t word;
        CXObject* object;
    };
    Reading _enter(long overflowLine) const;
    void _leave(const Reading& reading, long underflowLine) const;
    bool _replace(const Reading& old, uint32_t newIndex);
    uint32_t _claimSlot(CXObject* object) noexcept;
    static Bucket* _bucketAfter(Bucket& bucket) noexcept;

    // The packed word: bits 0 to 11 count the readers that have found the current object and not yet settled
    // their retain, bits 12 to 21 hold its slot, bits 22 to 61 a generation that every replacement steps.
    //
    // A reader counts itself, retains the object, and takes its count back. A writer first retains the old
    // object once for every reader counted, then swaps in the new index with a count of 0; a reader that
    // finds its generation gone therefore owns two retains and gives one back, and the writer may drop the
    // slot's reference at once: each counted reader holds one of its own, and no other can find the slot.
    // The generation keeps a reader or writer from mistaking a slot used again for the one it read.
    //
    // All exchanges are sequentially consistent. They pair with the acquiring loads of the word: a slot and
    // its object are written before the word names them.
    mutable std::atomic<uint64_t> _girc;
    Bucket* _buckets; // the first; never null after creation
};
