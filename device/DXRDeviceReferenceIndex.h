#pragma once

#include "DXRDeviceReference.h"

#include <unordered_map>
#include <utility>
#include <vector>

/// Values under the references they belong to, found by equal and by generically equal ones at a cost that
/// does not grow with their number. Among several the one that was added first is found. A reference may be
/// there for any number of values.
/// Threads:   unlocked; one thread at a time.
/// Real time: no.
template <class Value> class DXRDeviceReferenceIndex {
public:
    void add(const CXRef<DXRDeviceReference>& reference, const Value& value)
    {
        _exact[reference->exactHash()].emplace_back(reference, value);
        if (reference->isGeneric()) // the others are equal to none in that way, and would all share one hash
            _generic[reference->genericHash()].emplace_back(reference, value);
    }
    /// The first of `value` under this very reference, if there is one.
    void remove(const CXRef<DXRDeviceReference>& reference, const Value& value)
    {
        removeFrom(_exact, reference->exactHash(), {reference, value});
        removeFrom(_generic, reference->genericHash(), {reference, value});
    }
    /// The first value whose reference isEqual() to this one; null without one. Valid until the next change.
    const Value* firstEqual(const DXRDeviceReference& reference) const
    {
        return firstIn(_exact, reference.exactHash(),
                       [&](const Entry& entry) { return entry.first->isEqual(&reference); });
    }
    /// The same by isGenericallyEqual().
    const Value* firstGenericallyEqual(const DXRDeviceReference& reference) const
    {
        return firstIn(_generic, reference.genericHash(),
                       [&](const Entry& entry) { return entry.first->isGenericallyEqual(&reference); });
    }
    /// All values whose references are generically equal, in the order of adding.
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
    using Table = std::unordered_map<size_t, std::vector<Entry>>; // by hash, each in the order of adding

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
