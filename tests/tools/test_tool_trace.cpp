#include "ChromeTraceWriter.h"
#include "CyclePicture.h"
#include "CycleStatistics.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <cmath>
#include <fstream>
#include <unistd.h>

namespace {

using nlohmann::json;
using Event = DXRCycleRecord::Event;
using Context = DXRCycleRecord::Context;

constexpr uint64_t begin = 1'000'000'000, cycleTicks = 10'000'000; // 480 frames at 48 kHz

DXRCycleRecord contextEvent(Event event, Context context, uint64_t ticks, uint32_t number = 1)
{
    return {.event = event,
            .context = context,
            .contextNumber = number,
            .beginTicks = ticks,
            .endTicks = ticks + 1'000'000};
}

/// Cycle number `i` of a device, with this number of lost frames, lateness and run time.
DXRCycleRecord cycle(uint64_t i, uint64_t lost = 0, uint64_t lateness = 50'000, uint64_t run = 20'000)
{
    DXRCycleRecord record;
    record.context = Context::Device;
    record.contextNumber = 1;
    record.frameCount = record.runnerFrameCount = 480;
    record.sampleTime = 480 * i;
    record.deviceSampleTime = 480 * i + lost;
    record.dueTicks = begin + i * cycleTicks;
    record.deadlineTicks = record.dueTicks + cycleTicks;
    record.beginTicks = record.blocksBeginTicks = record.dueTicks + lateness;
    record.endTicks = record.beginTicks + run;
    return record;
}

TEST(CycleStatistics, countsGapsAndLateCyclesAndTheirCause)
{
    CycleStatistics statistics;
    statistics.note(contextEvent(Event::ContextStarted, Context::Device, begin));
    for (uint64_t i = 0; i < 40; ++i) { // before beginCounting(): not counted
        statistics.note(cycle(i, i == 0 ? 0 : 960));
        EXPECT_EQ(statistics.isSettled(48000), i > 25) << i;
    }
    statistics.beginCounting();
    for (const DXRCycleRecord& record : {cycle(40, 960), cycle(41, 960, 50'000, 9'960'000), // runs too long
                                         cycle(42, 960, 9'000'000, 1'100'000),              // begins too late
                                         cycle(43, 1440)})
        statistics.note(record);
    EXPECT_EQ(statistics.gaps, 1U);
    EXPECT_EQ(statistics.lostFrames, 480U);
    EXPECT_EQ(statistics.lateCycles, 2U);
    EXPECT_EQ(statistics.lateByUs, 1U);
    EXPECT_EQ(statistics.largestLateness, 9'000'000U);
    EXPECT_EQ(statistics.longestRun, 9'960'000U);
    EXPECT_FALSE(statistics.isSettled(48000)) << "not after a gap";

    // Another context has another sample time, which is not a gap. Dropped records hide gaps and are counted.
    DXRCycleRecord other = cycle(44, 777);
    other.contextNumber = 2;
    statistics.note(contextEvent(Event::ContextStarted, Context::Device, begin, 2));
    statistics.note(other);
    other.deviceSampleTime += 5000;
    other.droppedRecords = 7;
    statistics.note(other);
    EXPECT_EQ(statistics.gaps, 1U);
    EXPECT_EQ(statistics.restarts, 1U);
    EXPECT_EQ(statistics.missingRecords(), 7U);
}

TEST(ChromeTraceWriter, marksEveryEvent)
{
    const std::string path = testing::TempDir() + "/dxr-trace-" + std::to_string(getpid()) + ".json";
    ChromeTraceWriter writer(path, "a \"name\" with \x1B and \xFF");
    writer.write(std::vector{contextEvent(Event::ContextStarted, Context::Device, begin - 2'000'000),
                             cycle(0), cycle(1, 480, 50'000, 10'000'000), // late and after a gap
                             contextEvent(Event::ContextStopped, Context::Device, begin + 60'000'000),
                             contextEvent(Event::ContextFailed, Context::None, begin + 62'000'000, 2),
                             contextEvent(Event::ContextStarted, Context::Timer, begin + 64'000'000, 3)});
    writer.mark("somebody's <device> is gone\n");
    writer.finish();
    std::map<std::string, int> seen;
    std::map<std::string, double> counted;
    for (const json& event : json::parse(std::ifstream(path))) {
        const std::string phase = event.at("ph"), name = event.at("name");
        ++seen[phase + " " + name];
        if (phase == "C")
            counted[name] += event.at("args").at("us").get<double>();
        else if (name == "device cycle" || name == "blocks")
            counted[name] += event.at("ts").get<double>() + event.at("dur").get<double>();
    }
    const double ends = 2'070.0 + 22'050.0; // of both cycles, from the first record
    EXPECT_EQ(counted, (std::map<std::string, double>{{"blocks ran", 10'020},
                                                      {"began after it was due", 100},
                                                      {"device cycle", ends},
                                                      {"blocks", ends}}));
    for (const char* event : {"i gap of 480 frames", "i late by 50 us", "X starting device 1", "X device 1",
                              "i device 1 started", "X starting none 2", "i none 2 did not start",
                              "i timer 3 started", "X timer 3", "i somebody's <device> is gone\n"})
        EXPECT_EQ(seen[event], 1) << event;
    std::remove(path.c_str());
}

TEST(CyclePicture, staysSmallAndValidForAnyRunAndNames)
{
    CyclePicture picture;
    const std::vector<std::string> names{"<script>&\"\x1B", "mic"};
    EXPECT_NE(picture.svg(0.0, names, "", "").find("</svg>"), std::string::npos) << "of nothing";
    picture.note(contextEvent(Event::ContextStarted, Context::Device, begin - 1'000'000));
    for (uint64_t i = 0; i < 200'000; ++i) { // half an hour
        picture.note(cycle(i, 0, i % 1000 == 0 ? 11'000'000 : 30'000));
        if (i % 1000 == 0)
            picture.notePresence({i % 50'000 < 25'000, true});
    }
    picture.add({"<b>&", -1.0, 1.0, "", {{"", "blue", {{0.0, 0.5}, {1.0, std::nan("")}, {5000.0, 7.0}}}}});
    const std::string svg = picture.svg(48000, names, "title", "results");
    EXPECT_LT(svg.size(), 1'000'000U);
    EXPECT_TRUE(svg.starts_with("<svg") && svg.ends_with("</svg>\n"));
    for (const char* text : {"&lt;b&gt;&amp;", "200,000 cycles of devices"})
        EXPECT_NE(svg.find(text), std::string::npos) << text;
    for (const char* text : {"nan", "inf", "<script>"})
        EXPECT_EQ(svg.find(text), std::string::npos) << text;
}

} // namespace
