#include "board/devices/probes.h"

#include <errno.h>

#include <algorithm>
#include <array>
#include <sstream>
#include <stdexcept>

namespace quil::board {
namespace {

constexpr std::array<const char*, 5> kProbedParts = {kRtc, kCodecs, kWifiAp, kWifiSta, kClockChip};
constexpr Health kHealths[] = {Health::kHealthy, Health::kFaulty, Health::kAbsent};
constexpr SdCard kCards[] = {SdCard::kPresent, SdCard::kMissing, SdCard::kFull, SdCard::kReadOnly};
constexpr char kPartsFile[] = "parts";
constexpr char kCardName[] = "sdcard";
constexpr std::string_view kCardPath = "/sdcard/";
constexpr int32_t kNobodyAnswers = 1;  // what the closed library returns for an absent part

std::string codecName(int32_t index) { return kCodecs + ("." + std::to_string(index)); }

template <typename State, size_t kCount>
std::string listOf(const State (&states)[kCount]) {
    std::string text;
    for (const State state : states)
        text += (text.empty() ? "" : ", ") + std::string(nameOf(state));
    return text;
}

template <typename State, size_t kCount>
bool isOneOf(const State (&states)[kCount], const std::string& text) {
    return std::any_of(std::begin(states), std::end(states),
                       [&](State state) { return text == nameOf(state); });
}

// The state with that name; the first one if there is none.
template <typename State, size_t kCount>
State stateNamed(const State (&states)[kCount], const std::string& text) {
    const auto* found = std::find_if(std::begin(states), std::end(states),
                                     [&](State state) { return text == nameOf(state); });
    return found == std::end(states) ? states[0] : *found;
}

}  // namespace

const char* nameOf(Health health) {
    switch (health) {
        case Health::kHealthy:
            return "healthy";
        case Health::kFaulty:
            return "faulty";
        case Health::kAbsent:
            return "absent";
    }
    return "";
}

const char* nameOf(SdCard card) {
    switch (card) {
        case SdCard::kPresent:
            return "present";
        case SdCard::kMissing:
            return "missing";
        case SdCard::kFull:
            return "full";
        case SdCard::kReadOnly:
            return "read-only";
    }
    return "";
}

std::string Probes::problemOf(const std::string& name, const std::string& state) {
    if (name == kCardName) {
        return isOneOf(kCards, state) ? "" : "the card is one of " + listOf(kCards);
    }
    if (!isPart(name)) {
        std::string text = "no such part; there are ";
        for (const char* part : kProbedParts) text += std::string(part) + ", ";
        return text + codecName(0) + " .., " + kCardName;
    }
    return isOneOf(kHealths, state) ? "" : "a part is one of " + listOf(kHealths);
}

Probes::Probes(BoardServices& board, int codecs) : mBoard(board), mCodecs(codecs) {
    std::istringstream lines(mBoard.store->read(kPartsFile).value_or(""));
    int number = 0;
    for (std::string line; std::getline(lines, line);) {
        ++number;
        if (trimmed(line).empty()) continue;
        const auto setting = settingIn(line);
        const std::string wrong =
            setting ? problemOf(setting->key, setting->value) : "not \"name = state\"";
        if (!wrong.empty()) {
            std::string complaint("the board's file ");
            complaint.append(kPartsFile).append(", line ").append(std::to_string(number));
            complaint.append(": '").append(line).append("': ").append(wrong);
            throw std::runtime_error(complaint);
        }
        mStates[setting->key] = setting->value;
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
    return stateNamed(kCards, stateOf(kCardName));
}

void Probes::set(const std::string& name, const std::string& state) {
    Guard guard(boardLock());
    mStates[name] = state;
    save();
}

Probes::Settings Probes::settings() const {
    Guard guard(boardLock());
    return mStates;
}

void Probes::restore(const Settings& settings) {
    Guard guard(boardLock());
    mStates = settings;
    save();
}

void Probes::save() const {
    std::string text;
    for (const auto& [key, kept] : mStates)
        text.append(key).append(" = ").append(kept).append("\n");
    mBoard.store->replace(kPartsFile, text);
}

std::string Probes::stateOf(const std::string& name) const {
    const auto found = mStates.find(name);
    return found == mStates.end() ? "" : found->second;
}

Health Probes::healthHere(const std::string& part) const {
    return stateNamed(kHealths, stateOf(part));
}

int32_t Probes::answer(const std::string& part, Health health) {
    int32_t result = 0;
    if (health == Health::kFaulty) result = -EIO;
    if (health == Health::kAbsent) result = kNobodyAnswers;
    if (const auto fault = mBoard.faults.take(Call::kProbe, part)) result = -fault->error;
    mBoard.trace.add(EventKind::kProbe, part,
                     std::string(nameOf(health)) + ", answered " + std::to_string(result));
    return result;
}

int32_t Probes::probe(const std::string& part) {
    Guard guard(boardLock());
    return answer(part, healthHere(part));
}

// The state of "es8316" is that of each codec that has none of its own.
int32_t Probes::probeCodec(int32_t index) {
    Guard guard(boardLock());
    const std::string name = codecName(index);
    if (index < 0 || index >= mCodecs) return answer(name, Health::kAbsent);
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
