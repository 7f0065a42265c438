#include "ChromeTraceWriter.h"

#include "CycleStatistics.h"
#include "DeviceReport.h"
#include "Text.h"

#include <cerrno>
#include <cmath>
#include <cstring>

using Event = DXRCycleRecord::Event;
using Context = DXRCycleRecord::Context;

namespace {

constexpr int cycleTrack = 1, contextTrack = 2;
constexpr const char* contextNames[] = {"none", "device", "aggregate", "timer"}; // by Context

std::string nameOf(const DXRCycleRecord& record)
{
    return contextNames[static_cast<size_t>(record.context)];
}

std::string numberedNameOf(const DXRCycleRecord& record)
{
    return nameOf(record) + " " + std::to_string(record.contextNumber);
}

/// Ticks in microseconds, to the nanosecond.
double microsecondsOf(uint64_t ticks)
{
    return std::round(1e9 * secondsOf(ticks)) / 1e3;
}

} // namespace

ChromeTraceWriter::ChromeTraceWriter(const std::string& path, const std::string& title)
    : _name(singleLine(path)), _file(path, std::ios::binary)
{
    _put({{"ph", "M"}, {"name", "process_name"}, {"args", {{"name", title}}}});
    for (const auto& [track, name] :
         {std::pair(cycleTrack, "cycles"), {contextTrack, "source of the cycles"}})
        _put({{"ph", "M"}, {"tid", track}, {"name", "thread_name"}, {"args", {{"name", name}}}});
    _check();
}

void ChromeTraceWriter::_check()
{
    if (!_file.flush())
        throw ToolFailure(_name + ": cannot be written: " + std::strerror(errno));
}

void ChromeTraceWriter::_put(CXPlist event)
{
    event["pid"] = 1;
    _file << std::exchange(_separator, ",\n") << jsonText(event, -1, false);
}

void ChromeTraceWriter::_putSpan(int track, const std::string& name, uint64_t beginTicks, uint64_t endTicks,
                                 const CXPlist& arguments)
{
    _put({{"ph", "X"},
          {"tid", track},
          {"name", name},
          {"ts", microsecondsOf(beginTicks - _beginTicks)},
          {"dur", microsecondsOf(endTicks - std::min(beginTicks, endTicks))},
          {"args", arguments}});
}

void ChromeTraceWriter::_putCounter(const char* name, uint64_t ticks, uint64_t value)
{
    _put({{"ph", "C"},
          {"name", name},
          {"ts", microsecondsOf(ticks - _beginTicks)},
          {"args", {{"us", microsecondsOf(value)}}}});
}

void ChromeTraceWriter::write(std::span<const DXRCycleRecord> records)
{
    for (const DXRCycleRecord& record : records) {
        if (_beginTicks == 0)
            _beginTicks = record.beginTicks;
        if (const uint64_t missing =
                record.droppedRecords - std::exchange(_droppedRecords, record.droppedRecords))
            _mark(record.beginTicks, formatCount(missing, "record") + " missing");
        if (record.event == Event::Cycle)
            _putCycle(record);
        else
            _putContext(record);
        _lastTicks = record.endTicks;
    }
    _check();
}

void ChromeTraceWriter::_putCycle(const DXRCycleRecord& record)
{
    _putSpan(cycleTrack, nameOf(record) + " cycle", record.beginTicks, record.endTicks,
             {{"sample time", record.sampleTime},
              {"device sample time", record.deviceSampleTime},
              {"frames", record.frameCount},
              {"runner frames", record.runnerFrameCount}});
    _putSpan(cycleTrack, "blocks", record.blocksBeginTicks, record.endTicks);
    if (record.dueTicks != 0)
        _putCounter("began after it was due", record.beginTicks,
                    record.beginTicks - std::min(record.beginTicks, record.dueTicks));
    _putCounter("blocks ran", record.beginTicks, record.endTicks - record.blocksBeginTicks);
    if (record.deadlineTicks != 0 && record.endTicks > record.deadlineTicks)
        _mark(record.endTicks,
              formatText("late by %.0f us", microsecondsOf(record.endTicks - record.deadlineTicks)));
    const uint64_t expected = _lastCycle.deviceSampleTime + _lastCycle.frameCount;
    if (_lastCycle.context == record.context && record.deviceSampleTime != expected)
        _mark(record.beginTicks,
              formatText("gap of %lld frames", static_cast<long long>(record.deviceSampleTime - expected)));
    _lastCycle = record;
}

void ChromeTraceWriter::_putContext(const DXRCycleRecord& record)
{
    _lastCycle.context = Context::None;
    if (record.event == Event::ContextStopped)
        return _endContext(record.endTicks);
    const std::string name = numberedNameOf(record);
    const bool isStarted = record.event == Event::ContextStarted;
    _putSpan(contextTrack, "starting " + name, record.beginTicks, record.endTicks);
    _mark(record.endTicks, name + (isStarted ? " started" : " did not start"));
    if (isStarted)
        _context = record;
}

void ChromeTraceWriter::_endContext(uint64_t ticks)
{
    if (_context.context != Context::None)
        _putSpan(contextTrack, numberedNameOf(_context), _context.endTicks, ticks);
    _context.context = Context::None;
}

void ChromeTraceWriter::_mark(uint64_t ticks, const std::string& text)
{
    const double at = microsecondsOf(ticks - _beginTicks);
    _put({{"ph", "i"}, {"s", "g"}, {"tid", contextTrack}, {"ts", at}, {"name", text}});
}
