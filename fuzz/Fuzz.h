#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string_view>

/// Runs one input. Each target defines it; libFuzzer or CorpusDriver calls it.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* bytes, size_t size);

/// Aborts the process, which a fuzzer detects, if the condition `what` is false.
inline void mustHold(bool isTrue, const char* what)
{
    if (isTrue)
        return;
    std::fprintf(stderr, "does not hold: %s\n", what);
    std::abort();
}

/// The input as text: the whole, its first line, and the text after that line, which may be empty.
struct FuzzedText {
    FuzzedText(const uint8_t* bytes, size_t size) : whole(reinterpret_cast<const char*>(bytes), size)
    {
        const size_t end = whole.find('\n');
        first = whole.substr(0, end);
        second = end == std::string_view::npos ? std::string_view() : whole.substr(end + 1);
    }
    std::string_view whole, first, second;
};
