// The state of the parts that the closed library probes for the self-test, and of the SD card.
//
// The board's file "parts" has one line "name = state" for each part; a part without a line is
// healthy, and the SD card is present.
#pragma once

#include <stdint.h>

#include <map>
#include <span>
#include <string>
#include <string_view>

#include "board/core/services.h"

namespace quil::board {

// Names of parts in the settings, the trace and faults (Call::kProbe). A single codec is
// "es8316.0", "es8316.1", and so on.
inline constexpr char kRtc[] = "rtc", kCodecs[] = "es8316", kWifiAp[] = "wifi-ap",
                      kWifiSta[] = "wifi-sta", kClockChip[] = "idt6965";

enum class Health { kHealthy, kFaulty, kAbsent };
enum class SdCard { kPresent, kMissing, kFull, kReadOnly };

class Probes {
  public:
    Probes(BoardServices&, int codecs);
    ~Probes();
    Probes(const Probes&) = delete;
    Probes& operator=(const Probes&) = delete;

    static std::span<const char* const> partNames();
    static bool isPart(const std::string& name);
    // What is wrong with a line of the file; empty: nothing.
    static std::string problemOf(const std::string& name, const std::string& state);

    void setHealth(const std::string& part, Health);  // throws std::runtime_error: no such part
    Health health(const std::string& part) const;
    void setSdCard(SdCard);
    SdCard sdCard() const;

    // A copy of all settings, to be restored later.
    using Settings = std::map<std::string, std::string>;
    Settings settings() const;
    void restore(const Settings&);

    // The closed library's calls; they return 0 for a healthy part.
    int32_t probe(const std::string& part);
    int32_t probeCodec(int32_t index);
    // The errno of this use of a path in the card's present state; 0 if the use is possible.
    enum class Use { kRead, kWrite, kCreate };
    int refusal(std::string_view boardPath, Use) const;

  private:
    void set(const std::string& name, const std::string& state);
    void save() const;
    std::string stateOf(const std::string& name) const;
    Health healthHere(const std::string& part) const;
    int32_t answer(const std::string& part, Health health);

    BoardServices& mBoard;
    const int mCodecs;
    Settings mStates;
};

const char* nameOf(Health);
const char* nameOf(SdCard);

}  // namespace quil::board
