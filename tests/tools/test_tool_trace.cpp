#include "ChromeTraceWriter.h"
#include "CyclePicture.h"
#include "CycleStatistics.h"
#include "Text.h"

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
    DXRCycleRecord record;
    record.event = event;
    record.context = context;
    record.contextNumber = number;
    record.beginTicks = ticks;
    record.endTicks = ticks + 1'000'000;
    return record;
}

/// Cycle number `i` of a device, with this lateness, run time and number of lost frames.
DXRCycleRecord cycle(uint64_t i, uint64_t lateness = 50'000, uint64_t run = 20'000, uint64_t lost = 0)
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
    statistics.note(cycle(0));
    statistics.note(cycle(1, 50'000, 20'000, 960)); // before beginCounting(): not counted
    EXPECT_FALSE(statistics.isSettled(48000));
    for (uint64_t i = 2; i < 40; ++i)
        statistics.note(cycle(i, 50'000, 20'000, 960));
    EXPECT_TRUE(statistics.isSettled(48000));
    EXPECT_EQ(statistics.gaps, 0U);
    statistics.beginCounting();

    statistics.note(cycle(40, 50'000, 20'000, 960));
    statistics.note(cycle(41, 50'000, 9'960'000, 960));    // runs too long
    statistics.note(cycle(42, 9'000'000, 1'100'000, 960)); // starts too late to end in time
    statistics.note(cycle(43, 50'000, 20'000, 1440));
    EXPECT_EQ(statistics.gaps, 1U);
    EXPECT_EQ(statistics.lostFrames, 480U);
    EXPECT_EQ(statistics.lateCycles, 2U);
    EXPECT_EQ(statistics.lateByUs, 1U);
    EXPECT_EQ(statistics.largestLateness, 9'000'000U);
    EXPECT_EQ(statistics.longestRun, 9'960'000U);
    EXPECT_FALSE(statistics.isSettled(48000)) << "not after a gap";

    // Another context has another sample time, which is not a gap. Dropped records hide gaps and are counted.
    DXRCycleRecord other = cycle(44, 50'000, 20'000, 777);
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

TEST(TickHistogram, findsQuantilesToWithinABin)
{
    TickHistogram histogram;
    EXPECT_EQ(histogram.quantileSeconds(0.5), 0.0);
    for (int i = 1; i <= 1000; ++i)
        histogram.note(i * 1e-6);
    histogram.note(100.0); // beyond the last bin
    EXPECT_NEAR(histogram.quantileSeconds(0.5), 500e-6, 50e-6);
    EXPECT_NEAR(histogram.quantileSeconds(0.99), 990e-6, 99e-6);
    EXPECT_EQ(histogram.quantileSeconds(1.0), 10.0) << "where the last bin ends";
    EXPECT_EQ(histogram.longestSeconds(), 100.0);
}

TEST(ChromeTraceWriter, isValidAndMarksEveryEvent)
{
    const std::string path = testing::TempDir() + "/dxr-trace-" + std::to_string(getpid()) + ".json";
    ChromeTraceWriter writer(path, "a \"name\" with \x1B and \xFF");
    std::vector<DXRCycleRecord> records{
        contextEvent(Event::ContextStarted, Context::Device, begin - 2'000'000)};
    for (uint64_t i = 0; i < 5; ++i)
        records.push_back(cycle(i));
    records.push_back(cycle(5, 50'000, 10'000'000, 480)); // late and after a gap
    records.push_back(contextEvent(Event::ContextStopped, Context::Device, begin + 60'000'000));
    records.push_back(contextEvent(Event::ContextFailed, Context::None, begin + 62'000'000, 2));
    records.push_back(contextEvent(Event::ContextStarted, Context::Timer, begin + 64'000'000, 3));
    writer.write(records);
    writer.mark("somebody's <device> is gone\n");
    writer.finish();
    std::map<std::string, int> seen;
    double cycleEnd = 0.0;
    for (const json& event : json::parse(std::ifstream(path))) {
        const std::string phase = event.at("ph"), name = event.at("name");
        ++seen[phase + " " + name];
        if (name == "device cycle") {
            EXPECT_GE(event.at("ts").get<double>(), cycleEnd) << "one after the other";
            EXPECT_EQ(event.at("args").at("frames"), 480);
            cycleEnd = event.at("ts").get<double>() + event.at("dur").get<double>();
        } else if (name == "blocks") {
            EXPECT_LE(event.at("ts").get<double>() + event.at("dur").get<double>(), cycleEnd + 0.001);
        }
        if (phase == "C") {
            EXPECT_GE(event.at("args").at("us").get<double>(), 0.0);
        }
    }
    const std::map<std::string, int> expected{{"X device cycle", 6},
                                              {"X blocks", 6},
                                              {"C blocks ran", 6},
                                              {"C began after it was due", 6},
                                              {"i gap of 480 frames", 1},
                                              {"i late by 50 us", 1},
                                              {"X starting device 1", 1},
                                              {"X device 1", 1},
                                              {"i device 1 started", 1},
                                              {"X starting none 2", 1},
                                              {"i none 2 did not start", 1},
                                              {"i timer 3 started", 1},
                                              {"X timer 3", 1},
                                              {"i somebody's <device> is gone\n", 1}};
    for (const auto& [name, count] : expected)
        EXPECT_EQ(seen[name], count) << name;
    std::remove(path.c_str());
    EXPECT_THROW(ChromeTraceWriter("/dev/full", ""), ToolFailure);
    EXPECT_THROW(ChromeTraceWriter("/nowhere/x", ""), ToolFailure);
}

TEST(CyclePicture, staysSmallAndValidForAnyRunAndNames)
{
    CyclePicture picture;
    const std::vector<std::string> names{"<script>&\"\x1B", "mic"};
    EXPECT_NE(picture.svg(0.0, names, "", "").find("</svg>"), std::string::npos) << "of nothing";
    picture.note(contextEvent(Event::ContextStarted, Context::Device, begin - 1'000'000));
    for (uint64_t i = 0; i < 200'000; ++i) { // half an hour
        picture.note(cycle(i, i % 1000 == 0 ? 11'000'000 : 30'000));
        if (i % 1000 == 0)
            picture.notePresence({i % 50'000 < 25'000, true});
    }
    picture.remark(1, "<b>&");
    picture.add({"a panel",
                 -1.0,
                 1.0,
                 " dB",
                 {{"none", "red", {}}, {"some", "blue", {{0.0, 0.5}, {1.0, std::nan("")}, {5000.0, 7.0}}}}});
    const std::string svg = picture.svg(48000, names, "title", "results");
    EXPECT_LT(svg.size(), 1'000'000U);
    EXPECT_NE(svg.find("&lt;b&gt;&amp;"), std::string::npos);
    EXPECT_TRUE(svg.starts_with("<svg") && svg.ends_with("</svg>\n"));
    EXPECT_EQ(svg.find("nan"), std::string::npos);
    EXPECT_EQ(svg.find("inf"), std::string::npos);
    EXPECT_EQ(svg.find("<script>"), std::string::npos);
    EXPECT_NE(svg.find("200,000 cycles of devices"), std::string::npos);
}

} // namespace
