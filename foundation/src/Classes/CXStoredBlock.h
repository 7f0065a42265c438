#pragma once

#include "CXBlock.h"
#include "CXLockFreeReference.h"

/// A block wrapped in an object, so that a CXLockFreeReference can hold it.
/// Threads: immutable, any.
template <class Signature> class CXStoredBlock final : public CXTFAObject {
public:
    /// Stores `block` in `reference`, or null if the block is empty.
    static void store(const CXBlock<Signature>& block, CXLockFreeReference& reference)
    {
        reference.setObjectReference(block ? CXRef<CXObject>::adopt(new CXStoredBlock(block)) : nullptr);
    }
    /// Returns the block that store() stored, or an empty block.
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
