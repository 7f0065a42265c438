#pragma once

#include "LogSink.h"

#include <memory>
#include <mutex>
#include <string>
#include <vector>

/// While it exists, collects log lines, which then go to neither the system log nor standard error.
class CapturedLog {
public:
    CapturedLog()
    {
        dxr::LogSink::setWriter([lines = _lines](std::string_view line) {
            const std::scoped_lock lock(lines->mutex);
            lines->all.emplace_back(line);
        });
    }
    ~CapturedLog() { dxr::LogSink::setWriter(nullptr); }
    CapturedLog(const CapturedLog&) = delete;

    std::vector<std::string> lines() const
    {
        const std::scoped_lock lock(_lines->mutex);
        return _lines->all;
    }

private:
    struct Lines {
        std::mutex mutex;
        std::vector<std::string> all;
    };
    const std::shared_ptr<Lines> _lines = std::make_shared<Lines>(); // another thread may still write a line
};
