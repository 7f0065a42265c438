#pragma once

#include "CXExport.h"

#include <cstdarg>
#include <string>

/// Lets the compiler check a printf format and its arguments, both counted from 1.
#define CX_PRINTF(formatIndex, firstArgument) __attribute__((format(printf, formatIndex, firstArgument)))

/// `format` with `arguments` filled in, as by vprintf; empty when the format cannot be followed.
DXR_EXPORT std::string CXFormatted(const char* format, va_list arguments) CX_PRINTF(1, 0);
