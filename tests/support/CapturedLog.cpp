#include "CapturedLog.h"

#include "LogSink.h"

CapturedLog::CapturedLog() : _lines(std::make_shared<Lines>())
{
    dxr::LogSink::setWriter([lines = _lines](std::string_view line) {
        const std::scoped_lock lock(lines->mutex);
        lines->all.emplace_back(line);
    });
}

CapturedLog::~CapturedLog()
{
    dxr::LogSink::setWriter(nullptr);
}

std::vector<std::string> CapturedLog::lines() const
{
    const std::scoped_lock lock(_lines->mutex);
    return _lines->all;
}
