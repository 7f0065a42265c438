#pragma once

#include "HALDeviceState.h"
#include "HALIOProcTable.h"
#include "HALPropertyWriter.h"

// Properties whose buffer holds an argument as well as the result.

/// Reads the translation from the caller's buffer and checks it: the input must have exactly `inputBytes`,
/// the output at least `outputBytes`, and neither may be null.
[[nodiscard]] HALStatus halTakeTranslation(HALPropertyWriter& writer, AudioValueTranslation& translation,
                                           size_t inputBytes, size_t outputBytes);
/// Reads 'lscn': translates a source ID to its name; returns 'nope' if the direction does not have that ID.
HALStatus halReadSourceName(const HALDirectionState& state, HALPropertyWriter& writer);
/// Reads 'suse': which of `streamCount` streams the callback named in the buffer uses.
HALStatus halReadStreamUsage(const HALIOProcTable& table, HALDirection direction, size_t streamCount,
                             HALPropertyWriter& writer);
/// Writes 'suse'.
HALStatus halWriteStreamUsage(HALIOProcTable& table, HALDirection direction,
                              std::span<const std::byte> value);
