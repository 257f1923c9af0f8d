// What a command was told to read.
#pragma once

#include <iosfwd>
#include <string>

namespace quil::tools {

// More than any trace, image or log has: a device such as /dev/zero has no end.
inline constexpr size_t kInputMost = size_t{256} << 20;

// The whole content. Throws a Failure with the system's reason: kUsage when there is no such file,
// kBadData when it cannot be read or has more than `most` bytes.
std::string readInput(const std::string& file, size_t most = kInputMost);
std::string readInput(std::istream& in, size_t most = kInputMost);  // standard input

}  // namespace quil::tools
