// The answer to a self-test request, taken apart.
#pragma once

#include <string>
#include <vector>

#include "tools/quilctl/output/values.h"

namespace quil::tools {

struct SelfTestVerdict {
    std::string item;
    std::string verdict;  // "OK" or "Error"
};

// The lines of the record, in its order; none for a record that is too short to have any.
std::vector<SelfTestVerdict> verdictsOf(const Bytes& record);

// Whether there is a record, it says that the test ran, and no part is in error.
bool hasPassed(const Bytes& record);

// Throws a Failure that names the parts in error, or says that there was no answer, and why.
void throwUnlessPassed(const Bytes& record, const std::string& reason = "");

}  // namespace quil::tools
