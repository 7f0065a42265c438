#pragma once

#include "CXRef.h"
#include "dxr/c.h"

#include <cstdint>
#include <mutex>
#include <new>
#include <optional>
#include <string>
#include <unordered_map>

/// What the functions of the C interface share.
namespace dxr_c {

/// Thrown by the body of a function of the interface, which then returns the status.
struct Failure {
    dxr_status status;
    std::string text;
};

[[noreturn]] inline void fail(dxr_status status, std::string text)
{
    throw Failure{status, std::move(text)};
}

enum class Kind : uintptr_t { Device = 1, Follower, Sound, Runner, Computer };
inline constexpr const char* kindNames[] = {"", "device", "follower", "sound", "runner", "computer"};

/// All handles in use, and all memory returned to callers. A handle is its number times 16 plus its kind:
/// numbers are never reused, so that a released handle cannot be mistaken for another.
class Handles {
public:
    static Handles& shared()
    {
        static auto* const handles = new Handles; // never destroyed: other threads run until the process ends
        return *handles;
    }

    template <class Handle> Handle* give(Kind kind, const CXRef<CXObject>& object)
    {
        const std::scoped_lock lock(_mutex);
        return reinterpret_cast<Handle*>(_give(kind, object));
    }
    /// The object; fails if `handle` is not a handle of that kind.
    template <class Object> CXRef<Object> object(const void* handle, Kind kind)
    {
        const std::scoped_lock lock(_mutex);
        return CXRef(static_cast<Object*>(&*_entry(handle, kind)->second.object));
    }
    void retain(const void* handle)
    {
        const std::scoped_lock lock(_mutex);
        ++_entry(handle, std::nullopt)->second.count;
    }
    /// Returns the object if that was its last reference: the caller must release it without the lock.
    CXRef<CXObject> release(const void* handle)
    {
        const std::scoped_lock lock(_mutex);
        const auto entry = _entry(handle, std::nullopt);
        if (--entry->second.count > 0)
            return nullptr;
        CXRef<CXObject> object = std::move(entry->second.object);
        _devices.erase(&*object);
        _entries.erase(entry);
        return object;
    }
    /// Registers memory from malloc(), with the number of devices that it lists.
    void addMemory(const void* memory, size_t deviceCount)
    {
        const std::scoped_lock lock(_mutex);
        _memory.emplace(memory, deviceCount);
    }
    /// The number of devices that the memory lists; empty if it is not registered.
    std::optional<size_t> removeMemory(const void* memory)
    {
        const std::scoped_lock lock(_mutex);
        const auto found = _memory.extract(memory);
        return found ? std::optional(found.mapped()) : std::nullopt;
    }

private:
    struct Entry {
        uint32_t count;
        CXRef<CXObject> object;
    };
    using Entries = std::unordered_map<uintptr_t, Entry>;

    uintptr_t _give(Kind kind, const CXRef<CXObject>& object)
    {
        if (const auto known = _devices.find(&*object); known != _devices.end()) {
            ++_entries.at(known->second).count;
            return known->second;
        }
        const uintptr_t handle = ++_last * 16 + static_cast<uintptr_t>(kind);
        const auto entry = _entries.emplace(handle, Entry{1, object}).first;
        try {
            if (kind == Kind::Device)
                _devices.emplace(&*object, handle);
        } catch (const std::bad_alloc&) { // the tables must agree
            _entries.erase(entry);
            throw;
        }
        return handle;
    }
    Entries::iterator _entry(const void* handle, std::optional<Kind> kind)
    {
        if (!handle)
            fail(DXR_ERROR_ARGUMENT, "the handle is null");
        const auto number = reinterpret_cast<uintptr_t>(handle);
        const auto entry = _entries.find(number);
        if (entry == _entries.end())
            fail(DXR_ERROR_HANDLE, "the handle was released, or never was one");
        if (kind && number % 16 != static_cast<uintptr_t>(*kind))
            fail(DXR_ERROR_HANDLE, std::string("the handle is of a ") + kindNames[number % 16] +
                                       ", not of a " + kindNames[static_cast<size_t>(*kind)]);
        return entry;
    }

    std::mutex _mutex;
    Entries _entries;
    std::unordered_map<const CXObject*, uintptr_t> _devices; // a device has one handle
    std::unordered_map<const void*, size_t> _memory;
    uintptr_t _last = 0;
};

} // namespace dxr_c
