#include "tests/swarm/faults/flows.h"

#include "board/board_directory.h"
#include "tests/swarm/faults/functions.h"

namespace quil::faults {
namespace {

using board::McuKind;
using board::Product;
using std::chrono::seconds;
using swarm::Act;
using swarm::World;

// Five sessions with a boot loader that answers nothing: the lines, three attempts to synchronise,
// two identifications, the erase, nine blocks that wait three times for a second.
constexpr board::Nanos kProgramming = 5 * seconds(2 + 3 + 12 + 3 + 27);
// The DONE line, three recoveries of the memory that wait for it, five attempts at the network.
constexpr board::Nanos kFpga = seconds(60);
constexpr board::Nanos kRequest = seconds(10);

constexpr Product kProducts[] = {Product::kHeron, Product::kKestrel, Product::kWrenT507};
constexpr const char* kAllItems = "1-2-3-4-5-6-7-8-9";

World smallWorldOf(Product product, McuKind part) {
    World world;
    world.product = product;
    world.part = part;
    world.mcuImage = mcuImageOf(part, Images::kSmallest);
    world.fpgaImage = 1024;
    world.logLevel = "D";
    world.selfTestItems = kAllItems;
    return world;
}

// The boot with the failure, and the clean one.
Flow flowOf(std::string name, World world, const swarm::Boot& boot, board::Nanos slack) {
    world.boots = {boot, plainBoot(true, true)};
    return {std::move(name), std::move(world), std::nullopt, slack};
}

void addBoots(std::vector<Flow>& flows) {
    for (const Product product : kProducts) {
        World world = smallWorldOf(product, McuKind::kGd32F303);
        const std::string name(board::nameOf(product));
        flows.push_back(flowOf("boot-" + name, world, plainBoot(true, true), kProgramming + kFpga));
        world.fpgaIsPending = true;
        flows.push_back(flowOf("fpga-update-" + name, world, plainBoot(false, true), kFpga));
    }
    for (const board::McuPart& part : board::mcuParts()) {
        World world = smallWorldOf(Product::kHeron, part.kind);
        world.mcuIsOlder = true;
        flows.push_back(flowOf(std::string("mcu-update-") + part.name, world,
                               plainBoot(true, false), kProgramming));
    }
}

// One client with these operations, of a service that is up.
Flow clientFlow(const char* name, std::initializer_list<Act> acts) {
    swarm::Boot boot = plainBoot(false, false);
    swarm::Client client;
    for (const Act act : acts) {
        client.operations.push_back(
            {.act = act, .number = static_cast<uint32_t>(client.operations.size() + 1)});
    }
    boot.sessions.front().clients.push_back(client);
    return flowOf(name, smallWorldOf(Product::kHeron, McuKind::kGd32F303), boot, kRequest);
}

void addFunctions(std::vector<Flow>& flows) {
    for (const Function& function : joined({mcuFunctions(), fpgaFunctions()})) {
        World world = smallWorldOf(Product::kHeron, function.part);
        world.mcuIsOlder = world.fpgaIsPending = true;
        world.boots = {plainBoot(true, true)};
        flows.push_back({function.name, world, function, kProgramming + kFpga});
    }
}

}  // namespace

size_t mcuImageOf(McuKind part, Images images) {
    constexpr size_t kShipped = 8192;
    if (part == McuKind::kGd32F303) return images == Images::kShipped ? kShipped : 2048;
    if (part == McuKind::kN32G45x) return images == Images::kShipped ? kShipped - 8 : 560;
    return images == Images::kShipped ? kShipped : 552;
}

swarm::Boot plainBoot(bool updateMcu, bool loadFpga) {
    swarm::Boot boot;
    boot.seed = 0;
    boot.sessions.emplace_back();
    boot.sessions.front().updateMcu = updateMcu;
    boot.sessions.front().loadFpga = loadFpga;
    return boot;
}

std::vector<Flow> everyFlow() {
    std::vector<Flow> flows;
    addBoots(flows);
    flows.push_back(clientFlow("self-test", {Act::kSelfTest, Act::kSetSelfTest}));
    flows.push_back(clientFlow("get", {Act::kGet, Act::kGet}));
    flows.push_back(clientFlow("set", {Act::kSet, Act::kSet}));
    flows.push_back(clientFlow("power", {Act::kLowPower, Act::kNormalPower}));
    flows.push_back(clientFlow("other-requests", {Act::kUnknownCommand, Act::kTooShort}));
    flows.push_back(clientFlow(
        "callbacks", {Act::kRegister, Act::kInvoke, Act::kWakeUp, Act::kUnregister, Act::kDebug}));
    addFunctions(flows);
    return flows;
}

}  // namespace quil::faults
