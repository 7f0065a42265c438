#pragma once

#include "CXBlock.h"
#include "CXLockFreeReference.h"

/// A block as an object, to be kept where objects are: in a lock-free reference.
/// Threads: immutable, any.
template <class Signature> class CXStoredBlock final : public CXTFAObject {
public:
    /// Puts `block` into `reference`, or nothing when it is empty.
    static void store(const CXBlock<Signature>& block, CXLockFreeReference& reference)
    {
        reference.setObjectReference(block ? CXRef<CXObject>::adopt(new CXStoredBlock(block)) : nullptr);
    }
    /// What store() put there; empty when there is nothing.
    static CXBlock<Signature> load(const CXLockFreeReference& reference)
    {
        const CXRef<CXObject> stored = reference.copyObjectReference();
        return stored ? static_cast<const CXStoredBlock*>(stored.get())->_block : CXBlock<Signature>();
    }

private:
    explicit CXStoredBlock(const CXBlock<Signature>& block) : _block(block) {}
    ~CXStoredBlock() override = default;

    const CXBlock<Signature> _block;
};
