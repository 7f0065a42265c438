#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

/// Collects every log line while it lives, in place of the system log and standard error.
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
    std::shared_ptr<Lines> _lines; // shared with a line that another thread may be writing at the end
};
