#include "board/interpose/malloc_hook.h"

#include <errno.h>
#include <link.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <vector>

#include "board/machine.h"

namespace quil::board {
namespace {

constexpr char kLibrary[] = "quil.hardware.quilservicemanager@1.0-impl.so";

struct Slot {
    void** where;
    void* before;
};
std::vector<Slot>& hookedSlots() {
    static auto* slots = new std::vector<Slot>;
    return *slots;
}

bool refused() {
    Machine* machine = poweredMachine();
    if (machine == nullptr || !machine->faults.take(Call::kMalloc, "")) return false;
    errno = ENOMEM;
    return true;
}

void* failingMalloc(size_t size) { return refused() ? nullptr : malloc(size); }
void* failingCalloc(size_t count, size_t size) { return refused() ? nullptr : calloc(count, size); }

void* replacementFor(const char* name) {
    if (strcmp(name, "malloc") == 0) return reinterpret_cast<void*>(&failingMalloc);
    if (strcmp(name, "calloc") == 0) return reinterpret_cast<void*>(&failingCalloc);
    return nullptr;
}

// The loader may have made the slots read-only. Their page stays writable afterwards: it may hold
// other writable data.
void setSlot(void** where, void* value) {
    const auto page = static_cast<uintptr_t>(sysconf(_SC_PAGESIZE));
    void* start = reinterpret_cast<void*>(reinterpret_cast<uintptr_t>(where) & ~(page - 1));
    if (mprotect(start, page, PROT_READ | PROT_WRITE) != 0) return;
    *where = value;
}

struct DynamicTables {
    const char* strings = nullptr;
    const ElfW(Sym) * symbols = nullptr;
    uintptr_t rela = 0, rel = 0, jump = 0;
    size_t relaSize = 0, relSize = 0, jumpSize = 0;
    bool jumpIsRela = false;
};

DynamicTables tablesOf(const ElfW(Dyn) * entry) {
    DynamicTables tables;
    for (; entry->d_tag != DT_NULL; ++entry) {
        const uintptr_t value = entry->d_un.d_ptr;
        if (entry->d_tag == DT_STRTAB) tables.strings = reinterpret_cast<const char*>(value);
        if (entry->d_tag == DT_SYMTAB) tables.symbols = reinterpret_cast<const ElfW(Sym)*>(value);
        if (entry->d_tag == DT_RELA) tables.rela = value;
        if (entry->d_tag == DT_RELASZ) tables.relaSize = value;
        if (entry->d_tag == DT_REL) tables.rel = value;
        if (entry->d_tag == DT_RELSZ) tables.relSize = value;
        if (entry->d_tag == DT_JMPREL) tables.jump = value;
        if (entry->d_tag == DT_PLTRELSZ) tables.jumpSize = value;
        if (entry->d_tag == DT_PLTREL) tables.jumpIsRela = value == DT_RELA;
    }
    return tables;
}

template <typename Relocation>
void hookIn(const DynamicTables& tables, uintptr_t base, uintptr_t table, size_t size) {
    if (table == 0 || tables.strings == nullptr || tables.symbols == nullptr) return;
    const auto* relocations = reinterpret_cast<const Relocation*>(table);
    for (size_t i = 0; i < size / sizeof(Relocation); ++i) {
        const auto symbol = sizeof(void*) == 8 ? relocations[i].r_info >> (sizeof(void*) * 4)
                                               : relocations[i].r_info >> 8;
        if (symbol == 0) continue;
        void* replacement = replacementFor(tables.strings + tables.symbols[symbol].st_name);
        if (replacement == nullptr) continue;
        auto** where = reinterpret_cast<void**>(base + relocations[i].r_offset);
        hookedSlots().push_back({where, *where});
        setSlot(where, replacement);
    }
}

void hookLibrary(const dl_phdr_info* info) {
    for (int i = 0; i < info->dlpi_phnum; ++i) {
        if (info->dlpi_phdr[i].p_type != PT_DYNAMIC) continue;
        const uintptr_t base = info->dlpi_addr;
        const DynamicTables tables =
            tablesOf(reinterpret_cast<const ElfW(Dyn)*>(base + info->dlpi_phdr[i].p_vaddr));
        hookIn<ElfW(Rela)>(tables, base, tables.rela, tables.relaSize);
        hookIn<ElfW(Rel)>(tables, base, tables.rel, tables.relSize);
        if (tables.jumpIsRela) {
            hookIn<ElfW(Rela)>(tables, base, tables.jump, tables.jumpSize);
        } else {
            hookIn<ElfW(Rel)>(tables, base, tables.jump, tables.jumpSize);
        }
    }
}

int visit(dl_phdr_info* info, size_t, void*) {
    const size_t length = strlen(info->dlpi_name), wanted = sizeof(kLibrary) - 1;
    if (length >= wanted && strcmp(info->dlpi_name + length - wanted, kLibrary) == 0) {
        hookLibrary(info);
    }
    return 0;
}

}  // namespace

void hookAllocations() {
    if (hookedSlots().empty()) dl_iterate_phdr(visit, nullptr);
}

void unhookAllocations() {
    for (const Slot& slot : hookedSlots()) setSlot(slot.where, slot.before);
    hookedSlots().clear();
}

}  // namespace quil::board
