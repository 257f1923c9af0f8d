// What a served board and its clients say to each other over its socket: one JSON object a line
// (docs/workbench.md).
#pragma once

#include <optional>
#include <set>
#include <string>
#include <vector>

#include "tools/quilctl/output/result.h"
#include "tools/quilctl/output/screen.h"

namespace quil::tools {

inline constexpr int kProtocol = 2;
// A client that sends longer lines is sent away.
inline constexpr size_t kLongestRequest = size_t{1} << 20;

// What a client asks for.
struct Request {
    enum class Kind { kRun, kWatch };
    Kind kind = Kind::kRun;
    // Run: a command line, without the program's name.
    std::vector<std::string> words = {};
    std::string folder = {};  // the client's working directory
    std::string board = {};   // the directory as the client calls it
    bool atOnce = false;      // also in the middle of another command
    Screen out = {}, err = {};
    // Watch: kinds of events; none: all.
    std::set<std::string> kinds = {};
};

std::string protocolLine(const Request&);
Request requestIn(const std::string& line);  // throws Failure

std::string protocolLine(const Json&);

// Any bytes, as a string or, when they are no UTF-8, as numbers.
Json jsonOfBytes(const std::string& bytes);
std::string bytesIn(const Json& document);  // throws Failure

// Makes lines of what arrives.
class Lines {
  public:
    void add(const char* bytes, size_t count) { mBytes.append(bytes, count); }
    std::optional<std::string> next();
    size_t waiting() const { return mBytes.size() - mBegin; }

  private:
    std::string mBytes;
    size_t mBegin = 0;
};

}  // namespace quil::tools
