#include "CXJSON.h"

#include <algorithm>

namespace {

/// Returns true if arrays and dictionaries in the text are nested deeper than the limit. Checked before
/// parsing, because values are copied, compared and written by recursion.
bool isTooDeep(std::string_view text)
{
    size_t depth = 0;
    bool isInString = false;
    for (size_t i = 0; i < text.size(); ++i) {
        const char each = text[i];
        if (isInString && each == '\\')
            ++i;
        else if (each == '"')
            isInString = !isInString;
        else if (!isInString && (each == '[' || each == '{') && ++depth > CXJSONMaximumDepth)
            return true;
        else if (!isInString && (each == ']' || each == '}') && depth > 0)
            --depth;
    }
    return false;
}

bool fits(const CXPlist& plist, size_t depthLeft)
{
    if (!plist.is_structured())
        return !plist.is_discarded();
    return depthLeft > 0 &&
           std::ranges::all_of(plist, [&](const CXPlist& each) { return fits(each, depthLeft - 1); });
}

} // namespace

std::optional<CXPlist> CXPlistWithJSON(std::string_view text)
{
    // The parser treats a zero byte as the end of the text.
    if (text.size() > CXJSONMaximumBytes || text.find('\0') != std::string_view::npos || isTooDeep(text))
        return std::nullopt;
    CXPlist plist = CXPlist::parse(text, nullptr, /*allow_exceptions=*/false);
    return plist.is_discarded() ? std::nullopt : std::optional(std::move(plist));
}

std::string CXJSONWithPlist(const CXPlist& plist)
{
    return plist.dump(-1, ' ', false, CXPlist::error_handler_t::replace);
}

bool CXPlistFitsJSON(const CXPlist& plist)
{
    return fits(plist, CXJSONMaximumDepth);
}
