// What a command has found out, in its two forms, and the one place that prints it.
#pragma once

#include <iosfwd>
#include <nlohmann/json.hpp>
#include <sstream>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "tools/quilctl/output/exit_codes.h"

namespace quil::tools {

using Json = nlohmann::ordered_json;  // members stay in the order in which they were added

bool isText(const std::string& bytes);  // true for UTF-8, the only text that JSON can hold

// Ends a command: thrown by it with what failed, where, and why.
class Failure : public std::runtime_error {
  public:
    // `remedy`: what to do next.
    Failure(ExitCode code, const std::string& message, std::string remedy = "")
        : std::runtime_error(message), mCode(code), mRemedy(std::move(remedy)) {}
    ExitCode code() const { return mCode; }
    const std::string& remedy() const { return mRemedy; }

  private:
    ExitCode mCode;
    std::string mRemedy;
};

const char* nameOf(ExitCode code);  // "failed"

// "file: No such file or directory", with the reason of a system call that has just failed.
Failure failureOf(ExitCode code, const std::string& what, int error);

// Before work of which the output would be lost: throws when the file cannot be written, or made.
// `called` is its name in the message.
void requireWritable(const std::string& file, const std::string& called);

// Filled by a command. What was filled before a Failure is printed as well.
class Result {
  public:
    Json json = Json::object();
    std::ostringstream text;

    // Prints the text so far. Only for a command whose text is also its progress.
    void show();
    // Where show() prints; null, as at first, when the text is not wanted.
    void showOn(std::ostream* live) { mLive = live; }
    std::string whole() const { return mShown + text.str(); }  // all text, also what was shown

  private:
    std::ostream* mLive = nullptr;
    std::string mShown = {};
};

class Reporter;

struct Output {
    std::ostream& out;
    Reporter& report;
    bool asJson;
};

// Prints the result as text or as one line of JSON, and reports failures; gives the exit code,
// which is that of the first failure. `command` is "mcu update", without options. An output that
// cannot be written is a failure, too.
ExitCode print(const Output& output, const std::string& command, Result& result,
               std::vector<Failure> failures);

}  // namespace quil::tools
