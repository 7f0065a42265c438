#include "CXStackTrace.h"

#include "CXException.h"
#include "CallStack.h"

namespace {

constexpr size_t maxFramesShown = 32;

std::vector<std::string> outermostFirst(const std::vector<std::string>& innermostFirst)
{
    return {innermostFirst.rbegin(), innermostFirst.rend()};
}

} // namespace

CXRef<CXStackTrace> CXStackTrace::fromCurrentStack()
{
    return initWithCrawlFrames(outermostFirst(dxr::CallStack::symbols()));
}

CXRef<CXStackTrace> CXStackTrace::initWithException(const CXException& exception)
{
    return initWithCrawlFrames(outermostFirst(exception.callStackSymbols()));
}

CXRef<CXStackTrace> CXStackTrace::initWithCrawlFrames(std::vector<std::string> frames)
{
    return CXRef<CXStackTrace>::adopt(new CXStackTrace(std::move(frames)));
}

CXStackTrace::CXStackTrace(std::vector<std::string> frames) : _frames(std::move(frames)) {}

std::string CXStackTrace::description() const
{
    if (_frames.empty())
        return "(N/A)";
    const bool tooDeep = _frames.size() > maxFramesShown;
    const size_t first = tooDeep ? _frames.size() - maxFramesShown - 1 : 0;
    const size_t end = tooDeep ? _frames.size() - 1 : _frames.size();
    std::string text = _frames[first];
    for (size_t i = first + 1; i < end; ++i)
        text += "\n" + _frames[i];
    return text;
}
