#pragma once

#include "DXRDeviceReference.h"

#include <unordered_map>
#include <utility>
#include <vector>

/// Values indexed by their references. Looks up equal or generically equal references in a time that does not
/// grow with the number of values. If several match, the value added first is found. A reference may have any
/// number of values.
/// Threads:   unlocked; one thread at a time.
/// Real time: no.
template <class Value> class DXRDeviceReferenceIndex {
public:
    void add(const CXRef<DXRDeviceReference>& reference, const Value& value)
    {
        _exact[reference->exactHash()].emplace_back(reference, value);
        if (reference->isGeneric()) // the others match none generically, and would all have one hash
            _generic[reference->genericHash()].emplace_back(reference, value);
    }
    /// Removes the first entry with this reference object and an equal value, if there is one.
    void remove(const CXRef<DXRDeviceReference>& reference, const Value& value)
    {
        removeFrom(_exact, reference->exactHash(), {reference, value});
        removeFrom(_generic, reference->genericHash(), {reference, value});
    }
    /// The first value whose reference isEqual() to this one; null if there is none. Valid until the next
    /// change.
    const Value* firstEqual(const DXRDeviceReference& reference) const
    {
        return firstIn(_exact, reference.exactHash(),
                       [&](const Entry& entry) { return entry.first->isEqual(&reference); });
    }
    /// As above, by isGenericallyEqual().
    const Value* firstGenericallyEqual(const DXRDeviceReference& reference) const
    {
        return firstIn(_generic, reference.genericHash(),
                       [&](const Entry& entry) { return entry.first->isGenericallyEqual(&reference); });
    }
    /// All values whose references are generically equal, in the order they were added.
    std::vector<Value> allGenericallyEqual(const DXRDeviceReference& reference) const
    {
        std::vector<Value> values;
        if (const auto found = _generic.find(reference.genericHash()); found != _generic.end())
            for (const Entry& entry : found->second)
                if (entry.first->isGenericallyEqual(&reference))
                    values.push_back(entry.second);
        return values;
    }

private:
    using Entry = std::pair<CXRef<DXRDeviceReference>, Value>;
    using Table = std::unordered_map<size_t, std::vector<Entry>>; // by hash, each in the order of insertion

    template <class Accepts>
    static const Value* firstIn(const Table& table, size_t hash, const Accepts& accepts)
    {
        const auto found = table.find(hash);
        if (found == table.end())
            return nullptr;
        for (const Entry& entry : found->second)
            if (accepts(entry))
                return &entry.second;
        return nullptr;
    }
    static void removeFrom(Table& table, size_t hash, const Entry& entry)
    {
        const auto found = table.find(hash);
        if (found == table.end())
            return;
        std::vector<Entry>& entries = found->second;
        for (auto each = entries.begin(); each != entries.end(); ++each) {
            if (*each == entry) {
                entries.erase(each);
                break;
            }
        }
        if (entries.empty())
            table.erase(found);
    }

    Table _exact;
    Table _generic;
};
