#include "tests/swarm/faults/cuts.h"

#include <stdexcept>

namespace quil::faults {
namespace {

using board::Product;
using swarm::World;
using tests::CutState;
using tests::KeptFiles;

}  // namespace

std::vector<CutFlow> everyCutFlow(Images images) {
    std::vector<CutFlow> flows;
    const auto add = [&](std::string name, const World& world, const swarm::Boot& boot) {
        flows.push_back({std::move(name), world});
        flows.back().world.boots = {boot, plainBoot(true, true)};
    };
    for (const Product product : {Product::kHeron, Product::kKestrel, Product::kWrenT507}) {
        const std::string name(board::nameOf(product));
        for (const board::McuPart& part : board::mcuParts()) {
            World world;
            world.product = product;
            world.part = part.kind;
            world.mcuImage = mcuImageOf(part.kind, images);
            world.fpgaImage = images == Images::kShipped ? 65536 : 1024;
            const std::string suffix = "-" + name + "-" + part.name;
            add("boot" + suffix, world, plainBoot(true, true));
            world.fpgaIsPending = true;
            add("fpga-update" + suffix, world, plainBoot(false, true));
            world.mcuIsOlder = true;
            add("mcu-update" + suffix, world, plainBoot(true, false));
            add("both" + suffix, world, plainBoot(true, true));
            swarm::Boot selfTest = plainBoot(false, false);
            selfTest.sessions.front().clients = {{{{.act = swarm::Act::kSelfTest, .number = 1}}}};
            add("self-test" + suffix, world, selfTest);
        }
    }
    return flows;
}

std::string nameOf(const CutRow& row) {
    std::string name;
    for (const board::PowerCut& cut : row) name += (name.empty() ? "" : ",") + tests::nameOf(cut);
    return name;
}

CutRow cutRowNamed(const std::string& text) {
    CutRow row;
    for (size_t at = 0; at <= text.size();) {
        const size_t end = std::min(text.find(',', at), text.size());
        const auto cut = tests::cutNamed(text.substr(at, end - at));
        if (!cut) throw std::runtime_error(text + ": not a cut");
        row.push_back(*cut);
        at = end + 1;
    }
    return row;
}

swarm::RunOptions Cuts::options() const {
    swarm::RunOptions options;
    options.beforeBoot = beforeBoot;
    options.onStandstill = onStandstill;
    options.hashesTraces = false;
    return options;
}

std::vector<CutState> Cuts::statesOf(const World& world, const KeptFiles* kept) {
    swarm::RunOptions hooks = options();
    hooks.kept = kept;
    tests::CutStates states;
    bool isFirst = true;
    hooks.onPower = [&](board::Board& board) {
        if (!isFirst) return;
        board.onEachCut(
            [&](const board::PowerCut& cut, const KeptFiles& left) { states.add(cut, left); });
    };
    hooks.onDone = [&](board::Board& board) {
        board.onEachCut(nullptr);
        isFirst = false;
    };
    const std::string finding = swarm::run(world, mGround, hooks).finding;
    if (!finding.empty()) throw std::runtime_error(finding + ", without a cut");
    return states.take();
}

std::vector<CutState> Cuts::firstStates(const World& world) { return statesOf(world, nullptr); }

std::vector<CutState> Cuts::nextStates(const World& world, const KeptFiles& kept) {
    World mending = world;
    mending.boots = {world.boots.back()};
    return statesOf(mending, &kept);
}

std::string Cuts::mend(const World& world, const KeptFiles& kept) {
    World mending = world;
    mending.boots = {world.boots.back()};
    swarm::RunOptions hooks = options();
    hooks.kept = &kept;
    return swarm::run(mending, mGround, hooks).finding;
}

std::string Cuts::replay(const World& world, const CutRow& row) {
    World cutOff = world;
    cutOff.boots.resize(1);
    for (size_t i = 0; i < row.size(); ++i) {
        cutOff.boots[i].cut = row[i];
        cutOff.boots.push_back(world.boots.back());
    }
    return swarm::run(cutOff, mGround, options()).finding;
}

KeptFiles Cuts::leftBy(const World& world, const CutRow& row) {
    World cutOff = world;
    cutOff.boots.assign(row.size(), world.boots.back());
    cutOff.boots.front() = world.boots.front();
    for (size_t i = 0; i < row.size(); ++i) cutOff.boots[i].cut = row[i];
    return swarm::run(cutOff, mGround, options()).kept;
}

}  // namespace quil::faults
