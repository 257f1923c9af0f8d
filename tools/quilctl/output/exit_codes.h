// Every exit code of quilctl. --help prints this table, and the JSON form of an error has the name.
#pragma once

#include <array>

namespace quil::tools {

enum ExitCode : int {
    kOk = 0,
    kFailed = 1,
    kUsage = 2,
    kBadData = 3,
    kNoBoard = 4,
    kNotWritten = 5,
    kInternal = 6,
    kRefused = 7,
    kLoaderWaits = 8,
    kStateUnknown = 9,
    kOverBudget = 10,
    kHungUp = 129,  // as a shell numbers a signal
    kInterrupted = 130,
    kTerminated = 143,
};

inline constexpr char kNoMemory[] =
    "no memory left: end other programs, or raise the limit (ulimit -v)";

struct ExitCodeRow {
    ExitCode code;
    const char* name;
    const char* meaning;
};
inline constexpr std::array<ExitCodeRow, 14> kExitCodes = {{
    {kOk, "ok", "done"},
    {kFailed, "failed", "no answer, a part in error, or a step that failed"},
    {kUsage, "usage", "wrong command line, or a named file that is not there"},
    {kBadData, "bad_data", "a file, a frame or an image with something wrong in it"},
    {kNoBoard, "no_board", "the board or its service cannot be used"},
    {kNotWritten, "not_written", "an output cannot be written: a file, --trace, standard output"},
    {kInternal, "internal", "a defect of quilctl itself, or no memory"},
    {kRefused, "refused", "the MCU's flash was not changed: a check failed, or no answer"},
    {kLoaderWaits, "loader_waits", "the MCU's flash is not whole; its boot loader waits"},
    {kStateUnknown, "state_unknown", "the MCU's flash may not be whole; its boot loader is silent"},
    {kOverBudget, "over_budget", "a stage of a trace took longer than its budget"},
    {kHungUp, "hung_up", "its terminal went away (SIGHUP); as 130"},
    {kInterrupted, "interrupted", "Ctrl-C (SIGINT): the board stopped as at a power cut"},
    {kTerminated, "terminated", "ended from outside (SIGTERM); as 130"},
}};

}  // namespace quil::tools
