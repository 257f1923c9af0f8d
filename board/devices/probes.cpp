#include "board/devices/probes.h"

#include <errno.h>

#include <algorithm>
#include <array>
#include <sstream>
#include <stdexcept>

#include "board/core/board_directory.h"
#include "board/machine.h"

namespace quil::board {
namespace {

constexpr std::array<const char*, 5> kProbedParts = {kRtc, kCodecs, kWifiAp, kWifiSta, kClockChip};
constexpr std::array<const char*, 3> kHealthNames = {"healthy", "faulty", "absent"};
constexpr std::array<const char*, 4> kCardNames = {"present", "missing", "full", "read-only"};
constexpr char kCardName[] = "sdcard";
constexpr std::string_view kCardPath = "/sdcard/";
constexpr int32_t kNobodyAnswers = 1;  // the closed library has no error number for it

std::string codecName(int32_t index) { return kCodecs + ("." + std::to_string(index)); }

// The state of that name; the first one for any other text.
template <typename State, size_t kCount>
State stateNamed(const std::array<const char*, kCount>& names, const std::string& text) {
    const auto found = std::find(names.begin(), names.end(), text);
    return static_cast<State>(found == names.end() ? 0 : found - names.begin());
}

}  // namespace

const char* nameOf(Health health) { return kHealthNames.at(static_cast<size_t>(health)); }
const char* nameOf(SdCard card) { return kCardNames.at(static_cast<size_t>(card)); }

Probes::Probes(std::filesystem::path file, int codecs) : file_(std::move(file)), codecs_(codecs) {
    std::istringstream lines(readWholeFile(file_).value_or(""));
    for (std::string line; std::getline(lines, line);) {
        std::istringstream words(line);
        std::string name, equals, state;
        if (words >> name >> equals >> state && equals == "=") states_[name] = state;
    }
}

Probes::~Probes() = default;

std::span<const char* const> Probes::partNames() { return kProbedParts; }

bool Probes::isPart(const std::string& name) {
    const std::string codec = codecName(0);
    if (name.size() == codec.size() &&
        name.compare(0, codec.size() - 1, codec, 0, codec.size() - 1) == 0) {
        return name.back() >= '0' && name.back() <= '9';
    }
    return std::any_of(kProbedParts.begin(), kProbedParts.end(),
                       [&](const char* part) { return name == part; });
}

void Probes::setHealth(const std::string& part, Health health) {
    if (!isPart(part)) throw std::runtime_error("the board has no part '" + part + "'");
    set(part, nameOf(health));
}

Health Probes::health(const std::string& part) const {
    Guard guard(boardLock());
    return healthHere(part);
}

void Probes::setSdCard(SdCard card) { set(kCardName, nameOf(card)); }

SdCard Probes::sdCard() const {
    Guard guard(boardLock());
    return stateNamed<SdCard>(kCardNames, stateOf(kCardName));
}

void Probes::set(const std::string& name, const std::string& state) {
    Guard guard(boardLock());
    states_[name] = state;
    save();
}

Probes::Settings Probes::settings() const {
    Guard guard(boardLock());
    return states_;
}

void Probes::restore(const Settings& settings) {
    Guard guard(boardLock());
    states_ = settings;
    save();
}

void Probes::save() const {
    std::string text;
    for (const auto& [key, kept] : states_)
        text.append(key).append(" = ").append(kept).append("\n");
    writeWholeFile(file_, text);
}

std::string Probes::stateOf(const std::string& name) const {
    const auto found = states_.find(name);
    return found == states_.end() ? "" : found->second;
}

Health Probes::healthHere(const std::string& part) const {
    return stateNamed<Health>(kHealthNames, stateOf(part));
}

int32_t Probes::answer(const std::string& part, Health health) {
    Machine* machine = poweredMachine();
    int32_t result = 0;
    if (health == Health::kFaulty) result = -EIO;
    if (health == Health::kAbsent) result = kNobodyAnswers;
    if (machine == nullptr) return result;
    if (const auto fault = machine->faults.take(Call::kProbe, part)) result = -fault->error;
    machine->trace.add(EventKind::kProbe, part,
                       std::string(nameOf(health)) + ", answered " + std::to_string(result));
    return result;
}

int32_t Probes::probe(const std::string& part) {
    Guard guard(boardLock());
    return answer(part, healthHere(part));
}

// What is said of all codecs holds for each that is not spoken of by itself.
int32_t Probes::probeCodec(int32_t index) {
    Guard guard(boardLock());
    const std::string name = codecName(index);
    if (index < 0 || index >= codecs_) return answer(name, Health::kAbsent);
    return answer(name, healthHere(stateOf(name).empty() ? kCodecs : name));
}

int Probes::refusal(std::string_view boardPath, Use use) const {
    if (boardPath.substr(0, kCardPath.size()) != kCardPath) return 0;
    switch (sdCard()) {
        case SdCard::kPresent:
            return 0;
        case SdCard::kMissing:
            return ENOENT;
        case SdCard::kFull:
            return use == Use::kCreate ? ENOSPC : 0;
        case SdCard::kReadOnly:
            return use == Use::kRead ? 0 : EROFS;
    }
    return 0;
}

}  // namespace quil::board
