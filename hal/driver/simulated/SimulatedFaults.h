#pragma once

#include "AudioHardwareTypes.h"

#include <atomic>
#include <map>
#include <mutex>
#include <string>

/// The faults that a test has requested, and the counts that determine when they occur.
/// Threads: any. The script of a read runs with no lock held.
class SimulatedFaults {
public:
    void failReads(uint32_t selector, uint64_t nth, uint64_t count, HALStatus status);
    void beforeRead(uint32_t selector, uint64_t nth, CXBlock<void()> script);
    void failWrites(const std::string& uid, HALStatus status);
    void failStarts(HALStatus status) { _startStatus = status; }

    /// The status that a read returns instead of being carried out; 0: the read is carried out.
    HALStatus statusOfRead(uint32_t selector, bool isSize);
    HALStatus statusOfWrite(const std::string& uid);
    HALStatus statusOfStart() const { return _startStatus; }

private:
    /// The number of reads of one selector since the rule was set.
    struct Count {
        uint32_t selector = 0;
        uint64_t reads = 0;
        /// Counts a read of `read` and returns its number; 0 if it is a read of another selector.
        uint64_t next(uint32_t read);
    };

    std::mutex _mutex;
    Count _failing;
    uint64_t _failingFirst = 0;
    uint64_t _failingCount = 0; // 0: no rule
    HALStatus _failingStatus = kAudioHardwareNoError;
    Count _scripted;
    uint64_t _scriptedRead = 0;
    CXBlock<void()> _script;                       // empty: no rule
    std::map<std::string, HALStatus> _writeStatus; // by UID; empty: any device and the system
    std::atomic<HALStatus> _startStatus{kAudioHardwareNoError};
};
