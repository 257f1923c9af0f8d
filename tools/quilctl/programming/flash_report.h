// The programmer's report as a command's result: text, JSON and exit code say the same.
#pragma once

#include "programmer/session.h"
#include "tools/quilctl/output/result.h"

namespace quil::tools {

ExitCode exitCodeOf(programmer::Outcome outcome);

// Fills the result; throws a Failure for an outcome that is none of success.
void addReport(Result& result, const programmer::Report& report, const std::string& what);

}  // namespace quil::tools
