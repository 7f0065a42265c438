#include "CXStringAdditions.h"

#include "Utf8.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cmath>
#include <cwctype>
#include <iconv.h>
#include <limits>
#include <locale.h>
#include <random>
#include <vector>

namespace {

/// Returns the first character of `text`, which must not be empty; a byte that begins no character counts as
/// one.
std::string_view firstCharacter(std::string_view text)
{
    return text.substr(0, std::max<size_t>(dxr::utf8CharacterLength(text), 1));
}

/// Returns the character's code point, or U+FFFD for a byte that is not part of a character.
char32_t codePointOf(std::string_view character)
{
    const auto byte = [&](size_t i) { return static_cast<char32_t>(static_cast<uint8_t>(character[i])); };
    switch (character.size()) {
    case 2:
        return (byte(0) & 0x1F) << 6 | (byte(1) & 0x3F);
    case 3:
        return (byte(0) & 0x0F) << 12 | (byte(1) & 0x3F) << 6 | (byte(2) & 0x3F);
    case 4:
        return (byte(0) & 0x07) << 18 | (byte(1) & 0x3F) << 12 | (byte(2) & 0x3F) << 6 | (byte(3) & 0x3F);
    default:
        return byte(0) < 0x80 ? byte(0) : 0xFFFD;
    }
}

size_t characterCount(std::string_view text)
{
    size_t count = 0;
    for (; !text.empty(); text.remove_prefix(firstCharacter(text).size()))
        ++count;
    return count;
}

bool isSpace(std::string_view character)
{
    const char32_t c = codePointOf(character);
    return (c >= 0x09 && c <= 0x0D) || c == 0x20 || c == 0x85 || c == 0xA0 || c == 0x1680 ||
           (c >= 0x2000 && c <= 0x200B) || c == 0x2028 || c == 0x2029 || c == 0x202F || c == 0x205F ||
           c == 0x3000;
}

/// Returns true for decimal digits other than 0 to 9, which the C library counts as letters.
bool isForeignDigit(char32_t c)
{
    // The digits 0 of Unicode 14; the other nine follow each.
    static constexpr char32_t zeros[] = {
        0x660,   0x6F0,   0x7C0,   0x966,   0x9E6,   0xA66,   0xAE6,   0xB66,   0xBE6,   0xC66,   0xCE6,
        0xD66,   0xDE6,   0xE50,   0xED0,   0xF20,   0x1040,  0x1090,  0x17E0,  0x1810,  0x1946,  0x19D0,
        0x1A80,  0x1A90,  0x1B50,  0x1BB0,  0x1C40,  0x1C50,  0xA620,  0xA8D0,  0xA900,  0xA9D0,  0xA9F0,
        0xAA50,  0xABF0,  0xFF10,  0x104A0, 0x10D30, 0x11066, 0x110F0, 0x11136, 0x111D0, 0x112F0, 0x11450,
        0x114D0, 0x11650, 0x116C0, 0x11730, 0x118E0, 0x11950, 0x11C50, 0x11D50, 0x11DA0, 0x16A60, 0x16AC0,
        0x16B50, 0x1D7CE, 0x1D7D8, 0x1D7E2, 0x1D7EC, 0x1D7F6, 0x1E140, 0x1E2F0, 0x1E950, 0x1FBF0};
    return std::ranges::any_of(zeros, [c](char32_t zero) { return c >= zero && c - zero < 10; });
}

/// Returns true if scanFloatArray() skips the character.
bool isSkipped(std::string_view character)
{
    // Recognises Unicode's letters regardless of the current locale.
    static const locale_t unicode = newlocale(LC_CTYPE_MASK, "C.UTF-8", nullptr);
    const char32_t c = codePointOf(character);
    if (c < 0x80)
        return std::isalpha(static_cast<int>(c)) != 0 ||
               std::string_view("*= ,:{}()[]").find(static_cast<char>(c)) != std::string_view::npos;
    return unicode && iswalpha_l(static_cast<wint_t>(c), unicode) != 0 && !isForeignDigit(c);
}

/// Returns the length of the decimal number at the start of `text`, or 0 if there is none.
size_t numberLength(std::string_view text)
{
    size_t end = !text.empty() && (text[0] == '-' || text[0] == '+') ? 1 : 0;
    const auto skipDigits = [&] {
        const size_t start = end;
        while (end < text.size() && text[end] >= '0' && text[end] <= '9')
            ++end;
        return end - start;
    };
    size_t digits = skipDigits();
    if (end < text.size() && text[end] == '.') {
        ++end;
        digits += skipDigits();
    }
    if (digits == 0)
        return 0;
    const size_t mantissaEnd = end;
    if (end < text.size() && (text[end] == 'e' || text[end] == 'E')) {
        ++end;
        if (end < text.size() && (text[end] == '-' || text[end] == '+'))
            ++end;
        if (skipDigits() == 0)
            end = mantissaEnd;
    }
    return end;
}

/// Returns true if a number is below 1. `number` is an unsigned number other than 0, as measured by
/// numberLength().
bool isBelowOne(std::string_view number)
{
    const size_t mantissaEnd = std::min(number.find_first_of("eE"), number.size());
    const std::string_view mantissa = number.substr(0, mantissaEnd);
    // The number of digits before the point or, if there are none other than 0, minus the number of zeros
    // between the point and the first other digit.
    const auto point = static_cast<int64_t>(std::min(mantissa.find('.'), mantissa.size()));
    const auto first = static_cast<int64_t>(mantissa.find_first_of("123456789"));
    const int64_t digits = first < point ? point - first : point + 1 - first;
    std::string_view exponentText = number.substr(std::min(mantissaEnd + 1, number.size()));
    if (exponentText.starts_with('+'))
        exponentText.remove_prefix(1);
    int64_t exponent = 0;
    if (std::from_chars(exponentText.data(), exponentText.data() + exponentText.size(), exponent).ec ==
        std::errc::result_out_of_range)
        return exponentText.starts_with('-');
    return exponent <= -digits;
}

/// Parses the number at the start of `text`, as measured by numberLength().
template <class Real> Real numberValue(std::string_view text)
{
    const bool isNegative = text[0] == '-';
    if (text[0] == '-' || text[0] == '+')
        text.remove_prefix(1);
    Real value = 0;
    if (std::from_chars(text.data(), text.data() + text.size(), value).ec == std::errc::result_out_of_range) {
        // Either an underflow or an overflow: from_chars() does not tell which.
        value = isBelowOne(text) ? Real{0} : std::numeric_limits<Real>::infinity();
    }
    return isNegative ? -value : value;
}

template <class Number> int32_t scanNumbers(std::string_view text, Number* numbers, int32_t count)
{
    for (int32_t read = 0; read < count; ++read) {
        while (!text.empty() && isSkipped(firstCharacter(text)))
            text.remove_prefix(firstCharacter(text).size());
        const size_t length = numberLength(text);
        if (length == 0)
            return read;
        numbers[read] = numberValue<Number>(text.substr(0, length));
        text.remove_prefix(length);
    }
    return count;
}

} // namespace

std::string uuidString()
{
    std::random_device random; // the kernel's generator
    uint32_t words[4];
    std::ranges::generate(words, std::ref(random));
    words[1] = (words[1] & 0xFFFF0FFFU) | 0x4000U;     // version 4: random
    words[2] = (words[2] & 0x3FFFFFFFU) | 0x80000000U; // variant 1
    char text[37];
    std::snprintf(text, sizeof text, "%08X-%04X-%04X-%04X-%04X%08X", words[0], words[1] >> 16,
                  words[1] & 0xFFFFU, words[2] >> 16, words[2] & 0xFFFFU, words[3]);
    return text;
}

std::optional<std::string> stringWithData(std::span<const std::byte> data, const std::string& encoding)
{
    if (encoding.empty())
        return std::nullopt; // iconv would take the locale's
    const iconv_t converter = iconv_open("UTF-8", encoding.c_str());
    if (converter == reinterpret_cast<iconv_t>(-1))
        return std::nullopt;
    std::string input(reinterpret_cast<const char*>(data.data()), data.size());
    std::string text;
    char* from = input.data();
    size_t left = input.size();
    bool isValid = true;
    for (bool isLast = false; isValid && !isLast;) {
        isLast = left == 0;
        char piece[256];
        char* to = piece;
        size_t room = sizeof piece;
        // The last call fetches what the decoder has held back, to combine it with a mark that did not come.
        const size_t result = iconv(converter, isLast ? nullptr : &from, &left, &to, &room);
        isValid = result != static_cast<size_t>(-1) || errno == E2BIG;
        text.append(piece, to);
    }
    iconv_close(converter);
    // iconv also decodes what is beyond Unicode's last character.
    return isValid ? stringWithUTF8Data(std::as_bytes(std::span(text))) : std::nullopt;
}

std::optional<std::string> stringWithUTF8Data(std::span<const std::byte> data)
{
    const std::string_view text(reinterpret_cast<const char*>(data.data()), data.size());
    for (std::string_view rest = text; !rest.empty();) {
        const size_t length = dxr::utf8CharacterLength(rest);
        if (length == 0)
            return std::nullopt;
        rest.remove_prefix(length);
    }
    return std::string(text);
}

std::string stringByRemovingCharactersInSet(std::string_view text, std::string_view set)
{
    std::vector<std::string_view> removed;
    for (; !set.empty(); set.remove_prefix(removed.back().size()))
        removed.push_back(firstCharacter(set));
    std::string result;
    while (!text.empty()) {
        const std::string_view character = firstCharacter(text);
        if (std::ranges::find(removed, character) == removed.end())
            result += character;
        text.remove_prefix(character.size());
    }
    return result;
}

std::string stringByTrimmingWhitespace(std::string_view text)
{
    while (!text.empty() && isSpace(firstCharacter(text)))
        text.remove_prefix(firstCharacter(text).size());
    size_t end = 0;
    for (size_t i = 0; i < text.size();) {
        const std::string_view character = firstCharacter(text.substr(i));
        i += character.size();
        if (!isSpace(character))
            end = i;
    }
    return std::string(text.substr(0, end));
}

std::string stringByReplacingQuotesWithSmartQuotes(std::string_view text)
{
    std::string result;
    bool opens = true;
    for (const char c : text) {
        if (c != '"') {
            result += c;
            continue;
        }
        result += opens ? "\u201C" : "\u201D";
        opens = !opens;
    }
    return result;
}

int32_t scanFloatArray(std::string_view text, float* floats, int32_t count)
{
    return scanNumbers(text, floats, count);
}

int32_t CXScanDoubleArray(std::string_view text, double* numbers, int32_t count)
{
    return scanNumbers(text, numbers, count);
}

bool hasPrefixInArray(std::string_view text, const CXPlist& prefixes)
{
    return prefixes.is_array() && std::ranges::any_of(prefixes, [text](const CXPlist& prefix) {
               const auto* const begin = prefix.get_ptr<const std::string*>();
               return begin && text.starts_with(*begin);
           });
}

void simpleReplace(std::string& text, std::string_view target, std::string_view replacement)
{
    if (target.empty())
        return;
    for (size_t at = text.find(target); at != std::string::npos;
         at = text.find(target, at + replacement.size()))
        text.replace(at, target.size(), replacement);
}

void simpleReplaceKeysWithValuesFrom(std::string& text, const CXPlist& replacements)
{
    if (!replacements.is_object())
        return;
    std::vector<std::pair<std::string, std::string>> pairs;
    for (const auto& [key, value] : replacements.items()) {
        if (value.is_string())
            pairs.emplace_back(key, value.get<std::string>());
    }
    std::ranges::stable_sort(pairs, std::greater(),
                             [](const auto& pair) { return characterCount(pair.first); });
    for (const auto& [key, value] : pairs)
        simpleReplace(text, key, value);
}

double CXLeadingNumber(std::string_view text)
{
    while (!text.empty() && isSpace(firstCharacter(text)))
        text.remove_prefix(firstCharacter(text).size());
    const size_t length = numberLength(text);
    return length == 0 ? 0.0 : numberValue<double>(text.substr(0, length));
}
