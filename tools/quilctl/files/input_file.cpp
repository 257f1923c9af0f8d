#include "tools/quilctl/files/input_file.h"

#include <errno.h>
#include <stdio.h>

#include <array>
#include <memory>

#include "tools/quilctl/output/result.h"

namespace quil::tools {
namespace {

Failure notRead(const std::string& file, int error) {
    return failureOf(error == ENOENT || error == ENOTDIR ? kUsage : kBadData,
                     file + " cannot be read", error);
}

}  // namespace

std::string readInput(const std::string& file) {
    const std::unique_ptr<FILE, int (*)(FILE*)> in(fopen(file.c_str(), "rbe"), fclose);
    if (in == nullptr) throw notRead(file, errno);
    std::string content;
    std::array<char, 65536> part;
    while (const size_t count = fread(part.data(), 1, part.size(), in.get())) {
        content.append(part.data(), count);
    }
    if (ferror(in.get()) != 0) throw notRead(file, errno);  // a directory, for example
    return content;
}

}  // namespace quil::tools
