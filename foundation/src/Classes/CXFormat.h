#pragma once

#include "CXExport.h"

#include <cstdarg>
#include <string>

/// Lets the compiler check a printf format and its arguments, both counted from 1.
#define CX_PRINTF(formatIndex, firstArgument) __attribute__((format(printf, formatIndex, firstArgument)))

/// Formats `arguments` as vprintf does. Returns an empty string if the format is invalid.
DXR_EXPORT std::string CXFormatted(const char* format, va_list arguments) CX_PRINTF(1, 0);
