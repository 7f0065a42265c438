#include "ChromeTraceWriter.h"

#include "CycleStatistics.h"
#include "DeviceReport.h"
#include "DisplayText.h"
#include "TextFormat.h"
#include "ToolFailure.h"

#include <algorithm>
#include <cerrno>
#include <cstring>

using Event = DXRCycleRecord::Event;
using Context = DXRCycleRecord::Context;

namespace {

constexpr int cycleTrack = 1, contextTrack = 2;

/// `text` as JSON, quoted.
std::string quoted(const std::string& text)
{
    return jsonText(CXPlist(text), -1, false);
}

std::string trackName(int track, const char* name)
{
    return formatText(R"({"ph":"M","pid":1,"tid":%d,"name":"thread_name","args":{"name":"%s"}})", track,
                      name);
}

std::string complete(int track, const std::string& name, double begin, double end,
                     const std::string& arguments)
{
    return formatText(R"({"ph":"X","pid":1,"tid":%d,"ts":%.3f,"dur":%.3f,"name":"%s","args":{%s}})", track,
                      begin, std::max(0.0, end - begin), name.c_str(), arguments.c_str());
}

std::string counter(const char* name, double at, double microseconds)
{
    return formatText(R"({"ph":"C","pid":1,"ts":%.3f,"name":"%s","args":{"us":%.3f}})", at, name,
                      microseconds);
}

} // namespace

const char* nameOf(DXRCycleRecord::Context context)
{
    switch (context) {
    case Context::Device:
        return "device";
    case Context::Aggregate:
        return "aggregate";
    case Context::Timer:
        return "timer";
    case Context::None:
        break;
    }
    return "none";
}

ChromeTraceWriter::ChromeTraceWriter(const std::string& path, const std::string& title)
    : _name(singleLine(path)), _file(std::fopen(path.c_str(), "wbe"))
{
    if (!_file)
        throw ToolFailure(_name + ": cannot be written: " + std::strerror(errno));
    std::fputs("[\n", _file.get());
    _put(R"({"ph":"M","pid":1,"name":"process_name","args":{"name":)" + quoted(title) + "}}");
    _put(trackName(cycleTrack, "cycles"));
    _put(trackName(contextTrack, "where they come from"));
    _check(std::fflush(_file.get()) == 0);
}

void ChromeTraceWriter::_check(bool isGood)
{
    if (!isGood || std::ferror(_file.get()))
        throw ToolFailure(_name + ": cannot be written on: " + std::strerror(errno));
}

void ChromeTraceWriter::_put(const std::string& event)
{
    const bool isGood = std::exchange(_isFirst, false) || std::fputs(",\n", _file.get()) >= 0;
    _check(isGood && std::fputs(event.c_str(), _file.get()) >= 0);
}

double ChromeTraceWriter::_microseconds(uint64_t ticks) const
{
    return 1e6 * secondsOf(ticks - _beginTicks);
}

void ChromeTraceWriter::write(std::span<const DXRCycleRecord> records)
{
    for (const DXRCycleRecord& record : records) {
        if (_beginTicks == 0)
            _beginTicks = record.beginTicks;
        if (record.droppedRecords != _droppedRecords)
            _mark(record.beginTicks,
                  formatCount(record.droppedRecords - _droppedRecords, "record is", "records are") +
                      " missing");
        _droppedRecords = record.droppedRecords;
        if (record.event == Event::Cycle)
            _putCycle(record);
        else
            _putContext(record);
        _lastTicks = record.endTicks;
    }
    _check(std::fflush(_file.get()) == 0);
}

void ChromeTraceWriter::_putCycle(const DXRCycleRecord& record)
{
    const double begin = _microseconds(record.beginTicks), blocks = _microseconds(record.blocksBeginTicks),
                 end = _microseconds(record.endTicks);
    _put(complete(cycleTrack, std::string(nameOf(record.context)) + " cycle", begin, end,
                  formatText(R"("sample time":%llu,"device sample time":%llu,"frames":%u,"runner frames":%u)",
                             static_cast<unsigned long long>(record.sampleTime),
                             static_cast<unsigned long long>(record.deviceSampleTime), record.frameCount,
                             record.runnerFrameCount)));
    _put(complete(cycleTrack, "blocks", blocks, end, ""));
    if (record.dueTicks != 0)
        _put(counter("came in after it was due", begin,
                     std::max(0.0, begin - _microseconds(record.dueTicks))));
    _put(counter("blocks ran", begin, end - blocks));
    if (record.deadlineTicks != 0 && record.endTicks > record.deadlineTicks)
        _mark(record.endTicks, formatText("late by %.0f us", end - _microseconds(record.deadlineTicks)));
    const uint64_t expected = _lastCycle.deviceSampleTime + _lastCycle.frameCount;
    if (_lastCycle.context == record.context && record.deviceSampleTime != expected)
        _mark(record.beginTicks,
              formatText("gap of %lld frames", static_cast<long long>(record.deviceSampleTime - expected)));
    _lastCycle = record;
}

void ChromeTraceWriter::_putContext(const DXRCycleRecord& record)
{
    _lastCycle.context = Context::None;
    const std::string name = formatText("%s %u", nameOf(record.context), record.contextNumber);
    if (record.event == Event::ContextStopped)
        return _putContextSpan(record.endTicks);
    const double begin = _microseconds(record.beginTicks), end = _microseconds(record.endTicks);
    const bool isStarted = record.event == Event::ContextStarted;
    _put(complete(contextTrack, "starting " + name, begin, end, ""));
    _mark(record.endTicks, name + (isStarted ? " started" : " did not start"));
    if (isStarted)
        _context = record;
}

void ChromeTraceWriter::_putContextSpan(uint64_t endTicks)
{
    if (_context.context == Context::None)
        return;
    _put(complete(contextTrack, formatText("%s %u", nameOf(_context.context), _context.contextNumber),
                  _microseconds(_context.endTicks), _microseconds(endTicks), ""));
    _context.context = Context::None;
}

void ChromeTraceWriter::mark(const std::string& what)
{
    _mark(_lastTicks != 0 ? _lastTicks : _beginTicks, what);
}

void ChromeTraceWriter::_mark(uint64_t ticks, const std::string& what)
{
    _put(formatText(R"({"ph":"i","s":"g","pid":1,"tid":%d,"ts":%.3f,"name":)", contextTrack,
                    _microseconds(ticks)) +
         quoted(what) + "}");
}

void ChromeTraceWriter::finish()
{
    if (!_file)
        return;
    _putContextSpan(_lastTicks);
    _check(std::fputs("\n]\n", _file.get()) >= 0);
    const bool isGood = std::fclose(_file.release()) == 0;
    if (!isGood)
        throw ToolFailure(_name + ": cannot be written to its end: " + std::strerror(errno));
}
