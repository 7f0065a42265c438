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
    /// What an error carries, by key: a CXValue for text and other property-list values, a CXError for a
    /// cause.
    using UserInfo = std::map<std::string, CXRef<CXObject>>;

    /// `title` is kept under localizedDescriptionKey. `format` and what follows are formatted as by printf
    /// and kept under localizedRecoverySuggestionKey, unless the format is null or empty.
    static CXRef<CXError> errorWithDomain(std::string domain, int32_t code,
                                          const std::optional<std::string>& title, const char* format, ...)
        CX_PRINTF(4, 5);
    /// The same, on top of `userInfo`: title and description replace entries of the same key. An empty
    /// dictionary stands for none; were it optional, std::nullopt for a title would fit it too.
    static CXRef<CXError> errorWithDomain(std::string domain, int32_t code, const UserInfo& userInfo,
                                          const std::optional<std::string>& title, const char* format, ...)
        CX_PRINTF(5, 6);
    /// The same, with the error that caused this one, if there is one, kept under underlyingErrorKey.
    static CXRef<CXError> errorWithDomain(std::string domain, int32_t code,
                                          const CXRef<CXError>& underlyingError, const UserInfo& userInfo,
                                          const std::optional<std::string>& title, const char* format, ...)
        CX_PRINTF(6, 7);
    /// An error that reports `exception`, in the domain "NSExceptionErrorDomain" with code 0: its user info,
    /// and its reason, name and stack as recovery suggestion. Without a trace, the exception's own is taken.
    static CXRef<CXError> errorFromException(const CXException& exception,
                                             CXRef<CXStackTrace> stackTrace = nullptr);

    const std::string& domain() const noexcept { return _domain; }
    int64_t code() const noexcept { return _code; }
    const UserInfo& userInfo() const noexcept { return _userInfo; }
    /// The error that caused this one; an empty reference when none is known.
    CXRef<CXError> underlyingError() const;

    /// The domain, the code, and the title where there is one.
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
