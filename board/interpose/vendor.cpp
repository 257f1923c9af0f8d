// The platform's log and properties, and the board's closed libraries.
#include <errno.h>
#include <stdarg.h>
#include <stdio.h>
#include <string.h>

#include "board/core/real_calls.h"
#include "board/interpose/interpose.h"
#include "board/machine.h"
#include "platform/vendor/include/quil_bi.h"

using namespace quil::board;

namespace {

constexpr size_t kPropertyMax = 92;  // the platform's, the NUL included

int keepLogLine(int priority, const char* tag, const char* text) {
    Machine* machine = machineForCall();
    if (machine == nullptr) {
        return real().logWrite != nullptr ? real().logWrite(priority, tag, text) : -1;
    }
    Guard guard(boardLock());
    if (machine->dead()) return -EIO;
    const std::string source = tag != nullptr ? tag : "";
    if (machine->trace.recording()) {
        machine->log.push_back({priority, source, text});
        machine->trace.add(EventKind::kLog, source, text);
    }
    return 1;
}

// -1 without power.
int32_t probe(const char* part) {
    Machine* machine = machineForCall();
    return machine != nullptr && !machine->dead() ? machine->probes.probe(part) : -1;
}

std::optional<Fault> vendorFault(Machine& machine, const char* function) {
    return machine.faults.take(Call::kVendor, function);
}

int copyProperty(std::string_view value, char* dest) {
    const size_t length = std::min(value.size(), kPropertyMax - 1);
    memcpy(dest, value.data(), length);
    dest[length] = '\0';
    return static_cast<int>(length);
}

}  // namespace

extern "C" {

[[gnu::format(printf, 3, 4)]] QUIL_EXPORT int __android_log_print(int priority, const char* tag,
                                                                  const char* format, ...) {
    va_list arguments;
    va_start(arguments, format);
    char* text = nullptr;
    const int length = vasprintf(&text, format, arguments);
    va_end(arguments);
    if (length < 0) return -1;
    const int result = keepLogLine(priority, tag, text);
    free(text);
    return result;
}

QUIL_EXPORT int __android_log_write(int priority, const char* tag, const char* text) {
    return keepLogLine(priority, tag, text);
}

// As on the platform, the search of the property area sets errno in any case.
QUIL_EXPORT int property_get(const char* name, char* value, const char* fallback) {
    errno = ENOENT;
    const std::string_view missing = fallback != nullptr ? fallback : "";
    Machine* machine = machineForCall();
    if (machine == nullptr || name == nullptr) return copyProperty(missing, value);
    Guard guard(boardLock());
    return copyProperty(machine->properties.find(name, missing), value);
}

QUIL_EXPORT int property_set(const char* name, const char* value) {
    Machine* machine = machineForCall();
    const std::string text = value != nullptr ? value : "";
    if (machine == nullptr || name == nullptr || text.size() >= kPropertyMax) return -1;
    if (machine->faults.take(Call::kPropertySet, name)) return -1;
    machine->properties.set(name, text);
    if (machine->dead()) return -1;
    return 0;
}

QUIL_EXPORT int32_t bi_common_load_ini_file(const char* path) {
    Machine* machine = machineForCall();
    if (machine == nullptr || path == nullptr) return 0;
    Guard guard(boardLock());
    if (machine->faults.take(Call::kOpen, path)) return 0;
    // From the workstation no more is read than a parser takes.
    if (!machine->filesInMemory)
        return machine->iniReader.load(machine->onHost(path).value_or(path));
    if (!Machine::isBoards(path)) return machine->iniReader.load(path);
    std::string text;
    return machine->readFile(path, &text) == 0 ? machine->iniReader.loadText(text) : 0;
}

// Copies the value whatever its length, as the closed library does: it has no capacity argument.
QUIL_EXPORT int32_t bi_common_ini_get_string(int32_t handle, const char* section, const char* key,
                                             char* dest) {
    Machine* machine = machineForCall();
    if (machine == nullptr) return -1;
    Guard guard(boardLock());
    if (const auto fault = vendorFault(*machine, __func__)) return -fault->error;
    const std::string* value = machine->iniReader.find(handle, section, key);
    if (value == nullptr) return -1;
    memcpy(dest, value->c_str(), value->size() + 1);
    return 0;
}

QUIL_EXPORT int32_t bi_common_ini_get_int(int32_t handle, const char* section, const char* key) {
    Machine* machine = machineForCall();
    if (machine == nullptr) return 0;
    Guard guard(boardLock());
    if (const auto fault = vendorFault(*machine, __func__)) return -fault->error;
    return machine->iniReader.integer(handle, section, key);
}

QUIL_EXPORT int32_t bi_info_get_product_info(void* block) {
    Machine* machine = machineForCall();
    if (machine == nullptr || block == nullptr) return -1;
    Guard guard(boardLock());
    if (const auto fault = vendorFault(*machine, __func__)) return -fault->error;
    return machine->productInformation.fill(static_cast<uint8_t*>(block));
}

QUIL_EXPORT int32_t bi_i2c_get_rtc_state(int32_t /*bus*/) { return probe(kRtc); }

QUIL_EXPORT int32_t bi_i2c_get_audio_state(int32_t codec) {
    Machine* machine = machineForCall();
    return machine != nullptr && !machine->dead() ? machine->probes.probeCodec(codec) : -1;
}

QUIL_EXPORT int32_t bi_i2c_get_clock_chip_state(int32_t /*bus*/) { return probe(kClockChip); }
QUIL_EXPORT int32_t bi_network_get_ap_state() { return probe(kWifiAp); }
QUIL_EXPORT int32_t bi_network_get_sta_state() { return probe(kWifiSta); }

}  // extern "C"
