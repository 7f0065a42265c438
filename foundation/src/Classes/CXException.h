#pragma once

#include "CXPlist.h"
#include "CXRef.h"

#include <exception>
#include <optional>
#include <string>
#include <vector>

/// The exception that a failed assertion throws: a name, a reason, and the stack of the place where it was
/// created.
/// Threads: immutable, any.
class DXR_EXPORT CXException : public std::exception {
public:
    /// Captures the calling thread's stack. `userInfo` is a dictionary, or null for none.
    CXException(std::string name, std::optional<std::string> reason, CXPlist userInfo = nullptr);

    const std::string& name() const noexcept { return _name; }
    /// std::nullopt if the exception was created without a reason.
    const std::optional<std::string>& reason() const noexcept { return _reason; }
    const CXPlist& userInfo() const noexcept { return _userInfo; }
    /// Innermost call first.
    const std::vector<std::string>& callStackSymbols() const noexcept { return _callStackSymbols; }

    /// "name: reason".
    const std::string& description() const noexcept { return _description; }
    const char* what() const noexcept override { return _description.c_str(); }

private:
    std::string _name;
    std::optional<std::string> _reason;
    CXPlist _userInfo;
    std::vector<std::string> _callStackSymbols;
    std::string _description;
};
