// The self-test as a client runs it, with what the board itself saw beside the answer.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "tools/quilctl/output/values.h"
#include "tools/quilctl/session/board_session.h"

namespace quil::tools {

inline constexpr char kSdCardPart[] = "sdcard";

struct SelfTestItem {
    std::string name;
    bool isEnabled;
    std::string verdict;  // "OK", "Error", or "-" without a line in the record
    std::string probe;
};

struct SelfTestRun {
    Bytes record;  // the answer as it came; empty when there was none
    std::vector<SelfTestItem> items;
    std::set<std::string> probed;  // parts
    std::string reason;            // why there is no answer
};

// Breaks parts while it lives, and restores them: a board directory would keep the setting.
class BrokenParts {
  public:
    BrokenParts(board::Probes& probes, const std::vector<std::string>& names);
    ~BrokenParts();
    BrokenParts(const BrokenParts&) = delete;
    BrokenParts& operator=(const BrokenParts&) = delete;

  private:
    board::Probes& mProbes;
    const board::Probes::Settings mFormer;
};

// Needs a session whose service was started.
SelfTestRun runSelfTest(BoardSession& session, const std::vector<std::string>& broken);

}  // namespace quil::tools
