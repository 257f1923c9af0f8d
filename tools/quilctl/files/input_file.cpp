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

using InputBlock = std::array<char, 65536>;

// `next` fills a block and says how much of it; 0 at the end.
template <typename Next>
std::string gathered(const std::string& name, size_t most, Next next) {
    const auto block = std::make_unique<InputBlock>();
    std::string content;
    while (const size_t count = next(*block)) {
        content.append(block->data(), count);
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
    std::string content = gathered(file, most, [&](InputBlock& block) {
        return fread(block.data(), 1, block.size(), in.get());
    });
    if (ferror(in.get()) != 0) throw notRead(file, errno);  // a directory, for example
    return content;
}

std::string readInput(std::istream& in, size_t most) {
    return gathered("standard input", most, [&](InputBlock& block) {
        in.read(block.data(), static_cast<std::streamsize>(block.size()));
        return static_cast<size_t>(in.gcount());
    });
}

}  // namespace quil::tools
