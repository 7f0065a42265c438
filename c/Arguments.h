#pragma once

#include "HALDirection.h"
#include "Handles.h"

#include <algorithm>
#include <string>

/// Checks of the arguments of the interface's functions. Each throws a Failure with the status to return;
/// `name` is that of the argument in the header.
namespace dxr_c {

template <class Pointer> void require(Pointer pointer, const char* name)
{
    if (!pointer)
        fail(DXR_ERROR_ARGUMENT, std::string(name) + " is null");
}

/// The text, which must be UTF-8.
std::string textOf(const char* text, const char* name);
HALDirection directionOf(dxr_direction direction);
bool isInput(dxr_direction direction);
/// The value, which must be from 0 to 1.
double requireFraction(double value, const char* name);
void requireSampleRate(double rate);

/// Reads a struct that the caller has filled in, up to the size given. No struct has grown yet, so the
/// present size is that of the first version.
template <class Struct> Struct readStruct(const Struct* given, const char* name)
{
    require(given, name);
    if (given->size < sizeof(Struct))
        fail(DXR_ERROR_ARGUMENT, std::string(name) + "->size is not the size of the struct");
    const auto* const bytes = reinterpret_cast<const unsigned char*>(given);
    if (given->size > sizeof(Struct) + 4096 || std::any_of(bytes + sizeof(Struct), bytes + given->size,
                                                           [](unsigned char byte) { return byte != 0; }))
        fail(DXR_ERROR_ARGUMENT, std::string(name) + " has fields that this version does not know");
    return *given;
}

} // namespace dxr_c
