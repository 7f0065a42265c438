#pragma once

#include <dxr/CXPlist.h>
#include <dxr/DXRCycleTrace.h>
#include <fstream>

/// Writes the trace of a runner as Chrome trace events, for chrome://tracing and Perfetto: a track of cycles
/// with their blocks, a track of contexts, counters for lateness and run time, and marks of events. A file
/// that is cut short, because the process was killed, can still be opened.
/// Threads: one.
class ChromeTraceWriter {
public:
    /// Makes or empties the file; `title` may be any text. Throws ToolFailure when it cannot be written.
    ChromeTraceWriter(const std::string& path, const std::string& title);

    /// Records, in their order. Throws ToolFailure when they cannot be written.
    void write(std::span<const DXRCycleRecord> records);
    /// A mark at the time of the last record; any text.
    void mark(const std::string& text) { _mark(_lastTicks != 0 ? _lastTicks : _beginTicks, text); }
    /// Ends the file. Throws ToolFailure when it cannot be written.
    void finish();

private:
    void _put(CXPlist event);
    void _putTrackName(int track, const char* name);
    void _putSpan(int track, const std::string& name, uint64_t beginTicks, uint64_t endTicks,
                  const CXPlist& arguments = CXPlist::object());
    void _putCounter(const char* name, uint64_t ticks, uint64_t value);
    void _putCycle(const DXRCycleRecord& record);
    void _putContext(const DXRCycleRecord& record);
    void _endContext(uint64_t ticks);
    void _mark(uint64_t ticks, const std::string& text);
    double _microseconds(uint64_t ticks) const;
    void _check();

    const std::string _name; // printable
    std::ofstream _file;
    uint64_t _beginTicks = 0; // of the first record
    uint64_t _lastTicks = 0;
    DXRCycleRecord _lastCycle; // of context None after a change of context
    DXRCycleRecord _context;   // the start of the present one; of context None without one
    uint64_t _droppedRecords = 0;
};
