#pragma once

#include <dxr/CXPlist.h>
#include <dxr/DXRCycleTrace.h>
#include <fstream>

/// Writes the trace of a runner as Chrome trace events, for chrome://tracing and Perfetto: a track of cycles
/// with their blocks, a track of contexts, counters for lateness and run time, and marks for single events.
/// If the process is killed, the incomplete file can still be opened.
class ChromeTraceWriter {
public:
    /// Creates or truncates the file; `title` may be any text. Throws ToolFailure if it cannot be written.
    ChromeTraceWriter(const std::string& path, const std::string& title);

    /// Writes the next `records` of the trace. Throws ToolFailure if they cannot be written.
    void write(std::span<const DXRCycleRecord> records);
    /// Writes a mark at the time of the last record; `text` may be any text.
    void mark(const std::string& text) { _mark(_lastTicks != 0 ? _lastTicks : _beginTicks, text); }
    /// Writes the end of the file. Throws ToolFailure if it cannot be written.
    void finish()
    {
        _endContext(_lastTicks);
        _file << "\n]\n";
        _check();
    }

private:
    void _put(CXPlist event);
    void _putSpan(int track, const std::string& name, uint64_t beginTicks, uint64_t endTicks,
                  const CXPlist& arguments = CXPlist::object());
    void _putCounter(const char* name, uint64_t ticks, uint64_t value);
    void _putCycle(const DXRCycleRecord& record);
    void _putContext(const DXRCycleRecord& record);
    void _endContext(uint64_t ticks);
    void _mark(uint64_t ticks, const std::string& text);
    void _check();

    const std::string _name; // printable
    std::ofstream _file;
    const char* _separator = "[\n"; // before the next event
    uint64_t _beginTicks = 0;       // of the first record
    uint64_t _lastTicks = 0;
    DXRCycleRecord _lastCycle; // its context is None after a change of context
    DXRCycleRecord _context;   // the start of the current context; its context is None if none runs
    uint64_t _droppedRecords = 0;
};
