// Injected faults: calls that fail, transfer fewer bytes than asked, or lose data silently.
#pragma once

#include <stddef.h>

#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "board/core/trace.h"

namespace quil::board {

enum class Call {
    kOpen,
    kRead,
    kWrite,
    kClose,
    kSelect,
    kPoll,
    kFcntl,
    kTcgetattr,
    kTcsetattr,
    kTcflush,
    kAccess,
    kStat,
    kFopen,
    kRemove,
    kSystem,
    kMalloc,
    kProbe,    // path: the part's name; the probe returns -error
    kGpioSet,  // path: the line's name
    kGpioGet,
    kFlashErase,    // path: "/dev/mtd0"; once for each sector
    kFlashProgram,  // path: "/dev/mtd0"; once for each page
    kVendor,        // path: the closed library's function; it returns -error
    kPropertySet,   // path: the property
    kSleep,         // a signal ends it half-way
    kWait           // for a condition: it ends at once without a signal
};
inline constexpr size_t kCalls = static_cast<size_t>(Call::kWait) + 1;

struct Fault {
    Call call;
    std::string path = {};               // board path, or "" for any file of the board
    int error = 0;                       // errno of the failure
    std::optional<size_t> shortTo = {};  // read and write: transfers at most this many bytes
    int after = 0;                       // so many matching calls succeed first
    int times = 1;                       // -1: for ever
    bool lostSilently = false;           // write, GPIO, system: reported as done, not done
    Nanos takes{0};                      // read, select, poll: board time until the failure
    std::optional<int> exitCode = {};    // system: the command only exits with this code
    std::optional<int> signal = {};      // system: the command only dies of this signal
};

class Faults {
  public:
    explicit Faults(Trace&);
    ~Faults();  // clears them, which ends the watch on allocations
    Faults(const Faults&) = delete;
    Faults& operator=(const Faults&) = delete;

    void add(Fault);
    void remove(const std::function<bool(const Fault&)>& isMeant);
    void clear();
    // For the board's parts: the fault that applies to this call, if any; it counts as used.
    std::optional<Fault> take(Call, std::string_view path);

    // From now on told of each call that a fault could have been added for. Null ends it. It is
    // called with the board's lock held.
    void onCall(std::function<void(Call, std::string_view path)> told);

    // Called with true when an allocation fault is added, and with false when all faults go.
    void watchAllocations(std::function<void(bool)> watch) {
        mAllocationsMayFail = std::move(watch);
    }

  private:
    Trace& mTrace;
    std::function<void(bool)> mAllocationsMayFail;
    std::function<void(Call, std::string_view)> mTold;
    std::vector<Fault> mFaults;
};

const char* nameOf(Call);

}  // namespace quil::board
