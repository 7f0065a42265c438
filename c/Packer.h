#pragma once

#include "Handles.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <new>
#include <vector>

namespace dxr_c {

/// Memory for a result, to be released with dxr_free().
template <class Value> Value* newMemory(size_t byteSize, size_t deviceCount = 0)
{
    void* const memory = std::calloc(1, std::max<size_t>(byteSize, 1));
    if (!memory)
        throw std::bad_alloc();
    Handles::shared().addMemory(memory, deviceCount);
    return static_cast<Value*>(memory);
}

inline const char* newText(const std::string& text)
{
    auto* const memory = newMemory<char>(text.size() + 1);
    std::memcpy(memory, text.c_str(), text.size() + 1);
    return memory;
}

/// Packs a struct and the data it points to into one piece of memory: measures in the first pass, fills in
/// the second.
class Packer {
public:
    const char* text(const std::string& text)
    {
        auto* const at = static_cast<char*>(_take(text.size() + 1, 1));
        if (at)
            std::memcpy(at, text.c_str(), text.size() + 1);
        return at;
    }
    const double* numbers(const std::vector<double>& numbers)
    {
        auto* const at = static_cast<double*>(_take(numbers.size() * sizeof(double), alignof(double)));
        if (at)
            std::ranges::copy(numbers, at);
        return at;
    }
    const char* const* texts(const std::vector<std::string>& texts)
    {
        auto* const at = static_cast<const char**>(_take(texts.size() * sizeof(char*), alignof(char*)));
        for (size_t i = 0; i < texts.size(); ++i) {
            const char* const each = text(texts[i]);
            if (at)
                at[i] = each;
        }
        return at;
    }
    /// `describe` returns the struct, whose pointers come from this packer.
    template <class Struct, class Describe> static const Struct* pack(const Describe& describe)
    {
        Packer packer(sizeof(Struct));
        describe(packer);
        packer._memory = newMemory<char>(packer._used);
        packer._used = sizeof(Struct);
        const Struct made = describe(packer);
        return static_cast<Struct*>(std::memcpy(packer._memory, &made, sizeof made));
    }

private:
    explicit Packer(size_t used) : _used(used) {}
    void* _take(size_t byteSize, size_t alignment)
    {
        const size_t at = (_used + alignment - 1) / alignment * alignment;
        _used = at + byteSize;
        return _memory ? _memory + at : nullptr;
    }

    char* _memory = nullptr;
    size_t _used;
};

} // namespace dxr_c
