#include "tools/quilctl/files/input_file.h"

#include <errno.h>
#include <stdio.h>

#include <array>
#include <istream>
#include <memory>

#include "tools/quilctl/output/result.h"

namespace quil::tools {
namespace {

Failure notRead(const std::string& file, int error) {
    return failureOf(error == ENOENT || error == ENOTDIR ? kUsage : kBadData,
                     file + " cannot be read", error);
}

using Part = std::array<char, 65536>;

// `next` fills a part and says how much of it; 0 at the end.
template <typename Next>
std::string gathered(const std::string& name, size_t most, Next next) {
    const auto part = std::make_unique<Part>();
    std::string content;
    while (const size_t count = next(*part)) {
        content.append(part->data(), count);
        if (content.size() <= most) continue;
        throw Failure(kBadData, name + " has more than " + std::to_string(most) +
                                    " bytes: nothing that a command reads is that large");
    }
    return content;
}

}  // namespace

std::string readInput(const std::string& file, size_t most) {
    const std::unique_ptr<FILE, int (*)(FILE*)> in(fopen(file.c_str(), "rbe"), fclose);
    if (in == nullptr) throw notRead(file, errno);
    std::string content = gathered(
        file, most, [&](Part& part) { return fread(part.data(), 1, part.size(), in.get()); });
    if (ferror(in.get()) != 0) throw notRead(file, errno);  // a directory, for example
    return content;
}

std::string readInput(std::istream& in, size_t most) {
    return gathered("standard input", most, [&](Part& part) {
        in.read(part.data(), static_cast<std::streamsize>(part.size()));
        return static_cast<size_t>(in.gcount());
    });
}

}  // namespace quil::tools
