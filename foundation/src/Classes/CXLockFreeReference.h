#pragma once

#include "CXRef.h"
#include "CXTFAObject.h"

#include <atomic>
#include <cstdint>

/// A strong reference that many threads can read and replace without a lock. A reader gets the object
/// retained: no object is destroyed between the moment a reader finds it and the moment the reader has
/// retained it.
/// Threads:   every function may be called on any thread.
/// Real time: copyObjectReference(). setObjectReference() while a slot is free; otherwise it allocates four
///            more. The thread that drops the last reference to an object destroys it.
/// Fails:     too many concurrent readers or objects are a programming error and assert.
class DXR_EXPORT CXLockFreeReference final : public CXTFAObject {
public:
    /// Creates an empty reference. Returns null if memory cannot be allocated.
    static CXRef<CXLockFreeReference> init();
    /// Creates a reference to `object`, which may be null.
    static CXRef<CXLockFreeReference> initWithObjectReference(const CXRef<CXObject>& object);

    /// Returns the current object, or null.
    CXRef<CXObject> copyObjectReference() const CX_REALTIME;
    /// Replaces the current object by `object`, which may be null.
    void setObjectReference(const CXRef<CXObject>& object);
    /// Replaces the current object by `object` if it is `expected`; either may be null. Returns false,
    /// without a change, if it is a different object or another thread replaced it first. If both arguments
    /// are equal, returns true without reading the current object.
    bool setObjectReference(const CXRef<CXObject>& object, const CXRef<CXObject>& expected);

    /// Returns the object in a slot, or null. The object is not retained and may be destroyed at any time.
    /// This function and the next three are used by the functions above and by tests.
    CXObject* getObjectAtIndex(uint32_t index) const noexcept CX_REALTIME;
    /// Writes a slot. The caller takes over the reference to the slot's old object, and the slot the
    /// reference to `object`.
    void setObject(CXObject* object, uint32_t index) noexcept CX_REALTIME;
    /// Stores `object` in the first free slot, which takes over its reference. Returns the slot's index.
    uint32_t setObjectAtFreeIndex(CXObject* object);
    /// The generation, index and reader count, packed as described at `_girc`.
    uint64_t packedWord() const noexcept { return _girc.load(std::memory_order_acquire); }

private:
    static constexpr uint32_t slotsPerBucket = 4;
    static constexpr uint32_t noObject = 1023; // the index that means null

    // Four slots, each a strong reference or null, and the next bucket. A slot is claimed by an exchange from
    // null and cleared by the thread that replaced the object. Buckets are added but never removed.
    struct Bucket {
        std::atomic<Bucket*> next;
        std::atomic<CXObject*> slots[slotsPerBucket];
    };

    CXLockFreeReference() noexcept;
    ~CXLockFreeReference() override;

    /// The state of a reader: the word before the reader was counted in it, and the object found. If the
    /// object is null, the reader is not counted.
    struct Reading {
        uint64_t word;
        CXObject* object;
    };
    Reading _enter(long overflowLine) const;
    void _leave(const Reading& reading, long underflowLine) const;
    bool _replace(const Reading& old, uint32_t newIndex);
    uint32_t _claimSlot(CXObject* object) noexcept;
    static Bucket* _bucketAfter(Bucket& bucket) noexcept;

    // The packed word. Bits 0 to 11: the number of readers that have found the current object and whose
    // retain is not yet settled. Bits 12 to 21: the object's slot. Bits 22 to 61: a generation, which every
    // replacement increments.
    //
    // A reader increments the count, retains the object, and decrements the count. A writer first retains the
    // old object once for every counted reader, then stores the new index with a count of 0. A reader that
    // then finds the generation changed owns two retains and releases one. The writer may therefore drop the
    // slot's reference at once: every counted reader has a retain, and no other thread can find the slot. The
    // generation prevents a reader or writer from mistaking a reused slot for the one it read.
    //
    // All exchanges are sequentially consistent. They pair with the acquire loads of the word: a slot and its
    // object are written before the word refers to them.
    mutable std::atomic<uint64_t> _girc;
    Bucket* _buckets; // the first bucket; never null after creation
};
