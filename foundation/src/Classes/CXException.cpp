#include "CXException.h"

#include "CallStack.h"

CXException::CXException(std::string name, std::optional<std::string> reason, CXPlist userInfo)
    : _name(std::move(name)), _reason(std::move(reason)), _userInfo(std::move(userInfo)),
      _callStackSymbols(dxr::CallStack::symbols()), _description(_name + ": " + _reason.value_or("(null)"))
{}
