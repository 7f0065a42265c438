#pragma once

#include <string>
#include <string_view>

namespace dxr {

/// Returns the length in bytes of the well-formed UTF-8 character (RFC 3629) at the start of `text`, or 0 if
/// there is none.
size_t utf8CharacterLength(std::string_view text) noexcept;

/// Returns the longest prefix of `text` of at most `maxBytes` bytes that does not split a character; a byte
/// that is not part of a character counts as a character.
std::string_view utf8Prefix(std::string_view text, size_t maxBytes) noexcept;

/// Returns `text` with every byte that is not part of a well-formed character replaced by U+FFFD.
std::string utf8Replaced(std::string_view text);

} // namespace dxr
