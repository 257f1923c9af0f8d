#include "tests/swarm/library_data.h"

#include <link.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <string_view>

#include "testing/build.h"

namespace quil::swarm {
namespace {

constexpr std::string_view kLibrary = "quil.hardware.quilservicemanager@1.0-impl.so";

struct Span {
    uintptr_t from = 0, to = 0;
};

// What the program may write to: the writable segments without what the loader protects.
std::vector<Span> writableSpansOf(const dl_phdr_info& library) {
    std::vector<Span> spans;
    Span sealed;
    for (int i = 0; i < library.dlpi_phnum; ++i) {
        const ElfW(Phdr)& segment = library.dlpi_phdr[i];
        const uintptr_t from = library.dlpi_addr + segment.p_vaddr;
        const Span span{from, from + segment.p_memsz};
        if (segment.p_type == PT_GNU_RELRO) sealed = span;
        if (segment.p_type == PT_LOAD && (segment.p_flags & PF_W) != 0) spans.push_back(span);
    }
    const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    sealed.to = (sealed.to + page - 1) / page * page;
    for (Span& span : spans) {
        if (span.from >= sealed.from && span.from < sealed.to) span.from = sealed.to;
    }
    std::erase_if(spans, [](const Span& span) { return span.from >= span.to; });
    return spans;
}

int find(dl_phdr_info* library, size_t /*size*/, void* spans) {
    const std::string_view name = library->dlpi_name;
    if (name.size() < kLibrary.size() || name.substr(name.size() - kLibrary.size()) != kLibrary) {
        return 0;
    }
    *static_cast<std::vector<Span>*>(spans) = writableSpansOf(*library);
    return 1;
}

}  // namespace

LibraryData::LibraryData() {
    if (QUIL_SANITIZED) return;  // which has its own data between
    std::vector<Span> spans;
    dl_iterate_phdr(find, &spans);
    for (const Span& span : spans) {
        const char* start = reinterpret_cast<const char*>(span.from);
        mRanges.push_back({span.from, std::string(start, span.to - span.from)});
    }
}

void LibraryData::putBack() const {
    for (const Range& range : mRanges) {
        memcpy(reinterpret_cast<void*>(range.at), range.content.data(), range.content.size());
    }
}

}  // namespace quil::swarm
