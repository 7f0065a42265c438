#pragma once

#include "CXBlock.h"
#include "CXExport.h"
#include "DXRKVOProperty.h"

#include <atomic>
#include <mutex>
#include <string>

/// An observer of one property, for as long as somebody holds this. It keeps neither the object nor the helper.
/// Threads:   any. The block runs on the main thread. Once the observation was ended there, it is not called again;
///            one ended elsewhere may be called a last time meanwhile.
/// Real time: no.
class DXR_EXPORT DXRKVOObservation final : public CXObject {
public:
    using Block = CXBlock<void(const std::string& key, DXRKVOChange change)>;

    const std::string& key() const noexcept { return _key; }
    /// Ends the observation, as dropping the last reference to this does.
    void end();

private:
    friend class DXRKVOHelper;

    DXRKVOObservation(std::string key, Block block) : _key(std::move(key)), _block(std::move(block)) {}
    ~DXRKVOObservation() override = default;

    void _call(DXRKVOChange change) const;

    const std::string _key;
    mutable std::mutex _mutex; // not held during a call
    Block _block;              // under the mutex; empty: ended
};
