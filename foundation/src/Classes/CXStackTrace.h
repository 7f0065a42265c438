#pragma once

#include "CXRef.h"

#include <string>
#include <vector>

class CXException;

/// Where a thread was, or where an exception was raised: one text a frame, outermost call first.
/// Threads: immutable, any.
class DXR_EXPORT CXStackTrace final : public CXObject {
public:
    /// The calling thread's stack now; this function is the innermost call.
    static CXRef<CXStackTrace> fromCurrentStack();
    /// The stack at the place where `exception` was made; its constructor is the innermost call.
    static CXRef<CXStackTrace> fromException(const CXException& exception)
    {
        return initWithException(exception);
    }
    static CXRef<CXStackTrace> initWithException(const CXException& exception);
    /// `frames` as they are, outermost first.
    static CXRef<CXStackTrace> initWithCrawlFrames(std::vector<std::string> frames);

    /// A frame a line, or "(N/A)" without any. Of 33 frames or more, the 32 innermost but without the very
    /// innermost, which is the function that took the stack; a shorter one is shown whole.
    std::string description() const override;

private:
    explicit CXStackTrace(std::vector<std::string> frames);
    ~CXStackTrace() override = default;

    const std::vector<std::string> _frames;
};
