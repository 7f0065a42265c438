#pragma once

#include <string>
#include <string_view>

namespace dxr {

/// How many bytes at the start of `text` are one well-formed UTF-8 character (RFC 3629); 0 when none are.
size_t utf8CharacterLength(std::string_view text) noexcept;

/// The whole characters at the start of `text` that fit into `maxBytes`; a byte that is part of none counts
/// as one.
std::string_view utf8Prefix(std::string_view text, size_t maxBytes) noexcept;

/// `text` with every byte that is not part of a well-formed character replaced by U+FFFD.
std::string utf8Replaced(std::string_view text);

} // namespace dxr
