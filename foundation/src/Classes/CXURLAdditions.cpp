#include "CXURLAdditions.h"

#include <cctype>
#include <cstdio>
#include <filesystem>
#include <string_view>

namespace {

bool isAlphanumeric(char c)
{
    return static_cast<unsigned char>(c) < 0x80 && std::isalnum(static_cast<unsigned char>(c)) != 0;
}

bool isOneOf(char c, std::string_view set)
{
    return set.find(c) != std::string_view::npos;
}

constexpr std::string_view unreservedMarks = "-._~";
constexpr std::string_view subDelimiters = "!$&'()*+,;=";

/// Returns `text` with all characters escaped except letters, digits, unreserved marks and `allowed`.
std::string escaped(std::string_view text, std::string_view allowed)
{
    std::string result;
    for (const char c : text) {
        if (isAlphanumeric(c) || isOneOf(c, unreservedMarks) || isOneOf(c, allowed)) {
            result += c;
        } else {
            char escape[4];
            std::snprintf(escape, sizeof escape, "%%%02X",
                          static_cast<unsigned>(static_cast<unsigned char>(c)));
            result += escape;
        }
    }
    return result;
}

/// Returns true if `part` contains only permitted characters and `allowed`, and its escapes are complete.
bool isMadeOf(std::string_view part, std::string_view allowed)
{
    for (size_t i = 0; i < part.size(); ++i) {
        const auto isDigit = [&](size_t at) {
            return at < part.size() && std::isxdigit(static_cast<unsigned char>(part[at])) != 0;
        };
        if (part[i] == '%' && isDigit(i + 1) && isDigit(i + 2))
            continue;
        if (!isAlphanumeric(part[i]) && !isOneOf(part[i], unreservedMarks) &&
            !isOneOf(part[i], subDelimiters) && !isOneOf(part[i], allowed))
            return false;
    }
    return true;
}

/// Splits `rest` at the first `mark`: returns the text after it and leaves the text before it.
std::optional<std::string_view> takeAfter(std::string_view& rest, char mark)
{
    const size_t at = rest.find(mark);
    if (at == std::string_view::npos)
        return std::nullopt;
    const std::string_view after = rest.substr(at + 1);
    rest = rest.substr(0, at);
    return after;
}

bool isScheme(std::string_view text)
{
    return !text.empty() && isAlphanumeric(text[0]) &&
           std::isdigit(static_cast<unsigned char>(text[0])) == 0 &&
           text.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+-.") ==
               std::string_view::npos;
}

/// Returns true for "user@host:port". The host may be an IPv6 address in brackets.
bool isAuthority(std::string_view text)
{
    const size_t at = text.rfind('@');
    if (at != std::string_view::npos && !isMadeOf(text.substr(0, at), ":"))
        return false;
    std::string_view host = at == std::string_view::npos ? text : text.substr(at + 1);
    if (host.starts_with('[')) {
        const size_t close = host.find(']');
        if (close == std::string_view::npos || !isMadeOf(host.substr(1, close - 1), ":"))
            return false;
        host.remove_prefix(close + 1);
        if (!host.empty() && host[0] != ':')
            return false;
    }
    const std::string_view port = takeAfter(host, ':').value_or("");
    return isMadeOf(host, "") && port.find_first_not_of("0123456789") == std::string_view::npos;
}

bool isURL(std::string_view rest)
{
    if (const auto fragment = takeAfter(rest, '#'); fragment && !isMadeOf(*fragment, ":@/?"))
        return false;
    if (const auto query = takeAfter(rest, '?'); query && !isMadeOf(*query, ":@/?"))
        return false;
    const size_t colon = rest.find(':');
    if (colon != std::string_view::npos && colon < rest.find('/')) {
        if (!isScheme(rest.substr(0, colon)))
            return false;
        rest.remove_prefix(colon + 1);
    }
    if (rest.starts_with("//")) {
        rest.remove_prefix(2);
        const std::string_view authority = rest.substr(0, rest.find('/'));
        if (!isAuthority(authority))
            return false;
        rest.remove_prefix(authority.size());
    }
    return isMadeOf(rest, ":@/");
}

std::string queryItem(const std::string& name, const CXPlist& value)
{
    constexpr std::string_view allowed =
        // The characters allowed in a query, except the separators of its items.
        "!$'()*+,;:@/?";
    std::string item = escaped(name, allowed);
    if (value.is_null())
        return item;
    const std::string text = value.is_string()
                                 ? value.get<std::string>()
                                 : value.dump(-1, ' ', false, CXPlist::error_handler_t::replace);
    return item + "=" + escaped(text, allowed);
}

} // namespace

std::optional<std::string> safeFileURLWithPath(const std::optional<std::string>& path)
{
    if (!path || path->empty() || path->find('\0') != std::string::npos)
        return std::nullopt;
    std::error_code error;
    std::string absolute = std::filesystem::absolute(*path, error).string();
    if (error)
        return std::nullopt;
    if (!absolute.ends_with('/') && std::filesystem::is_directory(absolute, error))
        absolute += '/';
    return "file://" + escaped(absolute, "!$&'()*+,=:@/");
}

std::optional<std::string> safeURLWithString(const std::optional<std::string>& text)
{
    return text && !text->empty() && isURL(*text) ? text : std::nullopt;
}

std::optional<std::string> vtURLWithURL(const std::string& base, const CXPlist& arguments)
{
    if (!safeURLWithString(base))
        return std::nullopt;
    std::string_view rest = base;
    const auto fragment = takeAfter(rest, '#');
    const auto query = takeAfter(rest, '?');
    std::string items;
    const auto append = [&items](std::string_view item) {
        items += items.empty() ? "?" : "&";
        items += item;
    };
    if (arguments.is_object()) {
        for (const auto& [name, value] : arguments.items())
            append(queryItem(name, value));
    }
    if (query && (!query->empty() || items.empty())) // an empty query has no items
        append(*query);
    std::string url = std::string(rest) + items;
    return fragment ? url + "#" + std::string(*fragment) : url;
}
