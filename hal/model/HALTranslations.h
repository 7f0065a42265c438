#pragma once

#include "HALDeviceState.h"
#include "HALIOProcTable.h"
#include "HALPropertyWriter.h"

// Properties whose buffer holds an argument as well as the result.

/// Takes the translation out of the caller's buffer and checks it: input and output of exactly these sizes,
/// nowhere null. The output may be larger.
[[nodiscard]] HALStatus halTakeTranslation(HALPropertyWriter& writer, AudioValueTranslation& translation,
                                           size_t inputBytes, size_t outputBytes);
/// 'lscn': from a source ID to its name; 'nope' for an ID that the direction does not have.
HALStatus halReadSourceName(const HALDirectionState& state, HALPropertyWriter& writer);
/// 'suse', read: which of `streamCount` streams the callback named in the buffer uses.
HALStatus halReadStreamUsage(const HALIOProcTable& table, HALDirection direction, size_t streamCount,
                             HALPropertyWriter& writer);
/// 'suse', written.
HALStatus halWriteStreamUsage(HALIOProcTable& table, HALDirection direction,
                              std::span<const std::byte> value);
