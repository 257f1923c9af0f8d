// What happened on a board as a timeline: spans with durations on named tracks, flows from a
// request to its answer, and counters. What shows a run to people is made of it: traces for
// viewers, reports, pages.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <array>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "board/core/trace.h"

namespace quil::tools {

// What quilctl itself adds to a trace: a note of this source when a stage of a start-up has ended,
// "network, 0.860000000 s: ok", and a request's end.
inline constexpr char kStageSource[] = "stage", kAnswered[] = "answered";

enum class Lane {
    kStages,
    kRequests,
    kShell,
    kFiles,
    kSleeps,
    kLog,
    kMcuLink,
    kBootLoader,
    kSpi,
    kGpio,
    kFlash,
    kBoard
};

struct LaneRow {
    Lane lane;
    const char* name;
    const char* where;  // what does it: a viewer's process
};
// In the order in which viewers show them.
inline constexpr std::array<LaneRow, 12> kLanes = {{
    {Lane::kStages, "stages", "host"},
    {Lane::kRequests, "requests", "host"},
    {Lane::kShell, "shell", "host"},
    {Lane::kFiles, "files", "host"},
    {Lane::kSleeps, "sleeps", "host"},
    {Lane::kLog, "log", "host"},
    {Lane::kMcuLink, "MCU link", "lines"},
    {Lane::kBootLoader, "boot loader", "lines"},
    {Lane::kSpi, "SPI", "lines"},
    {Lane::kGpio, "GPIO", "lines"},
    {Lane::kFlash, "flash", "parts"},
    {Lane::kBoard, "board", "parts"},
}};
const LaneRow& rowOf(Lane);

struct Span {
    Lane lane;
    std::string line;  // of the lane: a direction, a GPIO line, a flash; "" where it has none
    std::string name;
    board::Nanos from, to;
    bool isMoment = false;             // it has no duration
    bool isOpen = false;               // it goes on
    bool isBad = false;                // something failed, or was done that no part allows
    std::optional<size_t> event = {};  // its number in the list; without: it comes from several
    std::vector<size_t> parts = {};    // those
    std::optional<size_t> flow = {};   // the first of its flow
    // Spans of a lane's line that overlap without one being in the other are in different rows.
    unsigned row = 0;
};
std::string trackOf(const Span&);  // "GPIO MCU_NRST"

// A counter has this value from here on.
struct Sample {
    std::string counter, unit;
    board::Nanos at;
    double value;
};

struct Timeline {
    std::vector<Span> spans;                 // one for each event, in their order; then the others
    std::vector<std::vector<size_t>> flows;  // spans with a duration, from cause to effect
    std::vector<Sample> samples;             // in the order of time, for each counter
};

// Of the events since a power-on. What has not ended ends with the last event, or with the power.
Timeline timelineOf(const std::vector<board::Event>& events);

class TimelineBuilder;

// The same while it grows, over power-ons: of a board that is watched.
class LiveTimeline {
  public:
    // `keeps`: of so many events, and of up to as many before, spans are still brought up to date.
    explicit LiveTimeline(size_t keeps);
    ~LiveTimeline();
    LiveTimeline(const LiveTimeline&) = delete;
    LiveTimeline& operator=(const LiveTimeline&) = delete;

    // The spans that are new, or others than before. A span of an event has the event's number,
    // one of several events has a number below 0.
    using Changes = std::vector<std::pair<int64_t, Span>>;
    Changes see(const board::Event& event);

  private:
    const size_t mKeeps;
    const std::unique_ptr<TimelineBuilder> mBuilder;
};

}  // namespace quil::tools
