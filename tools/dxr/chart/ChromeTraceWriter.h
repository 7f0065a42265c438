#pragma once

#include <cstdio>
#include <dxr/DXRCycleTrace.h>
#include <memory>
#include <string>

/// Writes the trace of a runner as Chrome trace events, which chrome://tracing and Perfetto show: a track of cycles, with
/// the blocks' run within each, a track of contexts, counters for how late cycles came and how long they took, and marks
/// where something happened. Written as it comes: what is on the disk can be opened even if the process is killed, since
/// readers of the format do not insist on its end.
/// Threads: one.
class ChromeTraceWriter {
public:
    /// Makes or empties the file; `title` is any text. Throws ToolFailure when it cannot be written.
    ChromeTraceWriter(const std::string& path, const std::string& title);
    ~ChromeTraceWriter() = default;
    ChromeTraceWriter(const ChromeTraceWriter&) = delete;
    ChromeTraceWriter& operator=(const ChromeTraceWriter&) = delete;

    /// Records, in the order in which the runner wrote them. Throws ToolFailure when the file takes no more.
    void write(std::span<const DXRCycleRecord> records);
    /// A mark at the time of the last record, of any text.
    void mark(const std::string& what);
    /// Ends the file. Throws ToolFailure when it cannot be written to its end.
    void finish();

private:
    struct Closer {
        void operator()(std::FILE* file) const { std::fclose(file); }
    };

    void _put(const std::string& event);
    void _putCycle(const DXRCycleRecord& record);
    void _putContext(const DXRCycleRecord& record);
    void _putContextSpan(uint64_t endTicks);
    void _mark(uint64_t ticks, const std::string& what);
    double _microseconds(uint64_t ticks) const;
    void _check(bool isGood);

    const std::string _name; // printable
    std::unique_ptr<std::FILE, Closer> _file;
    bool _isFirst = true;
    uint64_t _beginTicks = 0; // of the first record
    uint64_t _lastTicks = 0;
    DXRCycleRecord _lastCycle; // of context None after a change of context
    DXRCycleRecord _context;   // the start of the one that runs; of context None while none does
    uint64_t _droppedRecords = 0;
};

/// "device", "aggregate", "timer", or "none".
const char* nameOf(DXRCycleRecord::Context context);
