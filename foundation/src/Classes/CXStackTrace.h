#pragma once

#include "CXRef.h"

#include <string>
#include <vector>

class CXException;

/// The stack of a thread, or of the place where an exception was created: one text per frame, outermost call
/// first.
/// Threads: immutable, any.
class DXR_EXPORT CXStackTrace final : public CXObject {
public:
    /// Captures the calling thread's stack; the innermost call is this function.
    static CXRef<CXStackTrace> fromCurrentStack();
    /// The stack of the place where `exception` was created; the innermost call is the exception's
    /// constructor.
    static CXRef<CXStackTrace> fromException(const CXException& exception)
    {
        return initWithException(exception);
    }
    static CXRef<CXStackTrace> initWithException(const CXException& exception);
    /// Stores `frames` unchanged, outermost first.
    static CXRef<CXStackTrace> initWithCrawlFrames(std::vector<std::string> frames);

    /// One line per frame, or "(N/A)" if there are none. Of more than 32 frames, shows the 32 innermost
    /// except the very innermost, which is the function that captured the stack. Shorter stacks are shown
    /// completely.
    std::string description() const override;

private:
    explicit CXStackTrace(std::vector<std::string> frames);
    ~CXStackTrace() override = default;

    const std::vector<std::string> _frames;
};
