#pragma once

#include "CXBlock.h"
#include "CXExport.h"
#include "DXRKVOProperty.h"

#include <mutex>
#include <string>

/// An observer of one property, from DXRKVOHelper::observe() until its last reference is released. It keeps
/// neither the object nor the helper alive.
/// Threads:   any. The block runs on the main thread. If the observation ends on the main thread, the block
///            is not called again; if it ends on another thread, one more call may be in progress.
/// Real time: no.
class DXR_EXPORT DXRKVOObservation final : public CXObject {
public:
    using Block = CXBlock<void(const std::string& key, DXRKVOChange change)>;

    const std::string& key() const noexcept { return _registration->key; }
    /// Ends the observation, as releasing the last reference does.
    void end() { _registration->end(); }

private:
    friend class DXRKVOHelper;

    /// The part that the helper keeps. It holds no reference to the observation, which would otherwise end
    /// late when released.
    class Registration final : public CXObject {
    public:
        static CXRef<Registration> init(std::string key, Block block)
        {
            return CXRef<Registration>::adopt(new Registration(std::move(key), std::move(block)));
        }
        /// Empty once the observation has ended.
        Block block() const;
        void end();

        const std::string key;

    private:
        Registration(std::string name, Block block) : key(std::move(name)), _block(std::move(block)) {}
        ~Registration() override = default;

        mutable std::mutex _mutex; // not held during a call
        Block _block;              // guarded by the mutex; empty once ended
    };

    explicit DXRKVOObservation(CXRef<Registration> registration) : _registration(std::move(registration)) {}
    ~DXRKVOObservation() override { end(); }

    const CXRef<Registration> _registration;
};
