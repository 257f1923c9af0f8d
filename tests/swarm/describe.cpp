#include <stdio.h>

#include <array>

#include "board/board_directory.h"
#include "tests/swarm/world.h"

namespace quil::swarm {
namespace {

constexpr std::array kActs = {"get",
                              "set",
                              "get self-test",
                              "set self-test",
                              "low power",
                              "normal power",
                              "unknown command",
                              "too short a request",
                              "register",
                              "unregister",
                              "hwInvoke",
                              "debug",
                              "wakeUp from outside"};
constexpr std::array kReactions = {
    "",        "calls wakeUp", "calls hwInvoke", "registers another", "unregisters",
    "is dead", "waits 50 ms"};
constexpr std::array kDisturbances = {"the MCU is reset", "the next byte of the MCU is 6 s late",
                                      "the MCU falls silent", "the MCU speaks again",
                                      "the MCU sends what nobody asked for"};
constexpr std::array kProductFiles = {
    "as from the factory", "the same in other words", "a line less", "a wrong value", "cut off",
    "noise in it"};
constexpr std::array kScreens = {"as from the factory", "missing", "empty", "truncated", "noise"};

std::string timeOf(Nanos time) {
    char text[40];
    snprintf(text, sizeof(text), "%.6f s", static_cast<double>(time.count()) / 1e9);
    return text;
}

class Steps {
  public:
    void add(const std::string& text) {
        ++mNumber;
        mText += (mNumber < 10 ? " " : "") + std::to_string(mNumber) + ". " + text + "\n";
    }
    const std::string& text() const { return mText; }

  private:
    int mNumber = 0;
    std::string mText;
};

std::string textOf(const board::Fault& fault) {
    std::string text = std::string("of ") + nameOf(fault.call) + ", the calls after " +
                       std::to_string(fault.after) + " others, " + std::to_string(fault.times) +
                       " times, ";
    return text + (fault.shortTo ? "transfer at most " + std::to_string(*fault.shortTo) + " bytes"
                                 : "fail with error " + std::to_string(fault.error));
}

std::string textOf(const board::ChanceRates& rates) {
    std::string text;
    const std::pair<const char*, uint32_t> named[] = {{"spurious wake-ups", rates.spuriousWakeUps},
                                                      {"interruptions", rates.interruptions},
                                                      {"short transfers", rates.shortTransfers},
                                                      {"clock steps", rates.clockSteps}};
    for (const auto& [name, rate] : named) {
        if (rate > 0) text.append(", ").append(name).append(" ").append(std::to_string(rate));
    }
    return text;
}

void addSurroundings(Steps& steps, const Boot& boot) {
    std::string order = "the threads take turns in the order of seed " + std::to_string(boot.seed);
    if (boot.pct.depth > 0) {
        order += ", PCT of depth " + std::to_string(boot.pct.depth) + " in " +
                 std::to_string(boot.pct.steps) + " steps";
    }
    if (boot.drawnSteps != UINT64_MAX) {
        order += ", for " + std::to_string(boot.drawnSteps) + " steps";
    }
    if (boot.drawnSteps == 0)
        order = "the threads take turns in the order in which they become runnable";
    steps.add("power on: " + order);
    if (const std::string chances = textOf(boot.chances); !chances.empty()) {
        steps.add("in a million" + chances);
    }
    if (boot.noise.flipped + boot.noise.dropped + boot.noise.doubled > 0) {
        steps.add("of a million bytes on the MCU's line, " + std::to_string(boot.noise.flipped) +
                  " are flipped, " + std::to_string(boot.noise.dropped) + " lost, " +
                  std::to_string(boot.noise.doubled) + " doubled");
    }
    for (const board::Fault& fault : boot.faults) steps.add(textOf(fault));
    for (const Disturbance& disturbance : boot.disturbances) {
        steps.add("after " + timeOf(disturbance.at) + ", " + nameOf(disturbance.kind));
    }
    if (boot.cut) {
        steps.add(std::string("power is cut ") + nameOf(boot.cut->position) + " event " +
                  std::to_string(boot.cut->event) + " (" + std::to_string(boot.cut->tear) + ")");
    }
    if (!boot.networkIsUp) steps.add("the network does not come up");
}

void addClient(Steps& steps, size_t number, const Client& client) {
    for (const Operation& operation : client.operations) {
        std::string text = "client " + std::to_string(number) + ": ";
        if (operation.pause.count() > 0) text += "after " + timeOf(operation.pause) + ", ";
        text += std::string(nameOf(operation.act)) + " (number " +
                std::to_string(operation.number) + ")";
        if (operation.reaction != Reaction::kNone) {
            text += std::string("; its callback ") + nameOf(operation.reaction);
        }
        steps.add(text);
    }
}

void addSession(Steps& steps, const Session& session) {
    std::string text = session.isNewProcess ? "the hosting component starts"
                                            : "the hosting component starts in the same process";
    text += std::string(session.updateMcu ? "" : ", without the MCU's update") +
            (session.loadFpga ? "" : ", without the FPGA");
    if (session.requestsAtOnce > 0) {
        text += ", for " + std::to_string(session.requestsAtOnce) + " requests at once";
    }
    steps.add(text);
    for (size_t i = 0; i < session.clients.size(); ++i) addClient(steps, i + 1, session.clients[i]);
    steps.add("once all clients are done, the hosting component stops");
}

std::string boardOf(const World& world) {
    std::string text = "a " + std::string(board::nameOf(world.product)) + " with a " +
                       board::partOf(world.part).name + "; its MCU holds ";
    text += world.mcuIsBlank ? "nothing" : world.mcuIsOlder ? kOlderMcu : kShippedMcu;
    text += ", images of " + std::to_string(world.mcuImage) + " and " +
            std::to_string(world.fpgaImage) + " bytes";
    if (world.fpgaIsPending) text += ", a new FPGA image is pending";
    text += "; log level " + world.logLevel + ", self-test items '" + world.selfTestItems + "', " +
            world.codecs + " codecs, product file " + nameOf(world.productFile) +
            ", screen partition " + nameOf(world.screen);
    std::string parts = world.parts;
    for (char& c : parts) c = c == '\n' ? ';' : c;
    return parts.empty() ? text : text + "; " + parts;
}

}  // namespace

const char* nameOf(Act act) { return kActs.at(static_cast<size_t>(act)); }
const char* nameOf(Reaction reaction) { return kReactions.at(static_cast<size_t>(reaction)); }
const char* nameOf(Disturbance::Kind kind) { return kDisturbances.at(static_cast<size_t>(kind)); }
const char* nameOf(ProductFile file) { return kProductFiles.at(static_cast<size_t>(file)); }
const char* nameOf(Screen screen) { return kScreens.at(static_cast<size_t>(screen)); }

std::string describe(const World& world) {
    Steps steps;
    steps.add(boardOf(world));
    for (const Boot& boot : world.boots) {
        addSurroundings(steps, boot);
        for (const Session& session : boot.sessions) addSession(steps, session);
    }
    return steps.text();
}

}  // namespace quil::swarm
