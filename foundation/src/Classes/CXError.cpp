#include "CXError.h"

#include "CXException.h"

#include <cstdarg>

namespace {

CXError::UserInfo filledUserInfo(CXError::UserInfo userInfo, const std::optional<std::string>& title,
                                 const CXRef<CXError>& underlyingError, const char* format, va_list arguments)
{
    if (title)
        userInfo[CXError::localizedDescriptionKey] = CXValue::initWithPlist(*title);
    if (format && *format != '\0')
        userInfo[CXError::localizedRecoverySuggestionKey] =
            CXValue::initWithPlist(CXFormatted(format, arguments));
    if (underlyingError)
        userInfo[CXError::underlyingErrorKey] = underlyingError;
    return userInfo;
}

} // namespace

CXRef<CXError> CXError::errorWithDomain(std::string domain, int32_t code,
                                        const std::optional<std::string>& title, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    UserInfo info = filledUserInfo({}, title, nullptr, format, arguments);
    va_end(arguments);
    return CXRef<CXError>::adopt(new CXError(std::move(domain), code, std::move(info)));
}

CXRef<CXError> CXError::errorWithDomain(std::string domain, int32_t code, const UserInfo& userInfo,
                                        const std::optional<std::string>& title, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    UserInfo info = filledUserInfo(userInfo, title, nullptr, format, arguments);
    va_end(arguments);
    return CXRef<CXError>::adopt(new CXError(std::move(domain), code, std::move(info)));
}

CXRef<CXError> CXError::errorWithDomain(std::string domain, int32_t code,
                                        const CXRef<CXError>& underlyingError, const UserInfo& userInfo,
                                        const std::optional<std::string>& title, const char* format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    UserInfo info = filledUserInfo(userInfo, title, underlyingError, format, arguments);
    va_end(arguments);
    return CXRef<CXError>::adopt(new CXError(std::move(domain), code, std::move(info)));
}

CXRef<CXError> CXError::errorFromException(const CXException& exception, CXRef<CXStackTrace> stackTrace)
{
    if (!stackTrace)
        stackTrace = CXStackTrace::fromException(exception);
    UserInfo info;
    if (exception.userInfo().is_object()) {
        for (const auto& [key, value] : exception.userInfo().items())
            info[key] = CXValue::initWithPlist(value);
    }
    info[localizedRecoverySuggestionKey] =
        CXValue::initWithPlist("Reason: " + exception.reason().value_or("(null)") +
                               "\nType: " + exception.name() + "\nStack Trace: " + stackTrace->description());
    return CXRef<CXError>::adopt(new CXError("NSExceptionErrorDomain", 0, std::move(info)));
}

CXError::CXError(std::string domain, int64_t code, UserInfo userInfo)
    : _domain(std::move(domain)), _code(code), _userInfo(std::move(userInfo))
{}

CXRef<CXError> CXError::underlyingError() const
{
    const auto found = _userInfo.find(underlyingErrorKey);
    return found == _userInfo.end() ? nullptr : CXRefCast<CXError>(found->second);
}

std::string CXError::description() const
{
    const auto title = _userInfo.find(localizedDescriptionKey);
    return _domain + " code " + std::to_string(_code) +
           (title == _userInfo.end() || !title->second ? "" : ": " + title->second->description());
}
