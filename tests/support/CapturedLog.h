#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

/// While it exists, collects log lines, which then go to neither the system log nor standard error.
class CapturedLog {
public:
    CapturedLog();
    ~CapturedLog();
    CapturedLog(const CapturedLog&) = delete;
    CapturedLog& operator=(const CapturedLog&) = delete;

    std::vector<std::string> lines() const;

private:
    struct Lines {
        std::mutex mutex;
        std::vector<std::string> all;
    };
    std::shared_ptr<Lines> _lines; // shared: another thread may still be writing a line
};
