#pragma once

#include "CXFormat.h"
#include "CXRef.h"
#include "CXStackTrace.h"
#include "CXValue.h"

#include <map>
#include <optional>
#include <string>

class CXException;

/// An error as a value: a domain, a code, and a message for the user.
/// Threads: immutable, any.
class DXR_EXPORT CXError final : public CXObject {
public:
    /// The additional information of an error, by key: a CXValue for text and other property-list values, a
    /// CXError for a cause.
    using UserInfo = std::map<std::string, CXRef<CXObject>>;

    /// Stores `title` under localizedDescriptionKey. Formats `format` and the following arguments as printf
    /// does and stores the text under localizedRecoverySuggestionKey, unless `format` is null or empty.
    static CXRef<CXError> errorWithDomain(std::string domain, int32_t code,
                                          const std::optional<std::string>& title, const char* format, ...)
        CX_PRINTF(4, 5);
    /// The same with additional entries; title and description replace entries of the same key. `userInfo` is
    /// not optional, because std::nullopt for a title would then be ambiguous; pass an empty map for none.
    static CXRef<CXError> errorWithDomain(std::string domain, int32_t code, const UserInfo& userInfo,
                                          const std::optional<std::string>& title, const char* format, ...)
        CX_PRINTF(5, 6);
    /// The same with the error that caused this one, stored under underlyingErrorKey unless it is null.
    static CXRef<CXError> errorWithDomain(std::string domain, int32_t code,
                                          const CXRef<CXError>& underlyingError, const UserInfo& userInfo,
                                          const std::optional<std::string>& title, const char* format, ...)
        CX_PRINTF(6, 7);
    /// Creates an error from `exception`, in the domain "NSExceptionErrorDomain" with code 0. It has the
    /// exception's user info, and its reason, name and stack trace as recovery suggestion. If `stackTrace` is
    /// null, uses the exception's own.
    static CXRef<CXError> errorFromException(const CXException& exception,
                                             CXRef<CXStackTrace> stackTrace = nullptr);

    const std::string& domain() const noexcept { return _domain; }
    int64_t code() const noexcept { return _code; }
    const UserInfo& userInfo() const noexcept { return _userInfo; }
    /// The error that caused this one, or null if none is known.
    CXRef<CXError> underlyingError() const;

    /// The domain, the code, and the title if it has one.
    std::string description() const override;

    static constexpr const char* localizedDescriptionKey = "NSLocalizedDescriptionKey";
    static constexpr const char* localizedRecoverySuggestionKey = "NSLocalizedRecoverySuggestionErrorKey";
    static constexpr const char* underlyingErrorKey = "NSUnderlyingErrorKey";

private:
    CXError(std::string domain, int64_t code, UserInfo userInfo);
    ~CXError() override = default;

    const std::string _domain;
    const int64_t _code;
    const UserInfo _userInfo;
};
