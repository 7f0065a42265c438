#pragma once

#include "CXException.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>

/// Returns the reason of the assertion that fails in `body`; "(none)" if none fails.
inline std::string reasonOf(const std::function<void()>& body)
{
    try {
        body();
    } catch (const CXException& exception) {
        EXPECT_EQ(exception.name(), "CXAssertionFailure");
        return exception.reason().value_or("");
    }
    return "(none)";
}
