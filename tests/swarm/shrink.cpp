#include "tests/swarm/shrink.h"

#include <vector>

namespace quil::swarm {
namespace {

using Change = std::function<void(World&)>;
using Changes = std::vector<Change>;

// Drops halves, quarters, and so on, of a list, at last single elements. `listOf` finds the list.
template <typename ListOf>
void addDrops(Changes& changes, size_t size, size_t least, const ListOf& listOf) {
    for (size_t piece = size; piece > 0; piece /= 2) {
        for (size_t at = 0; at + piece <= size; at += piece) {
            if (size - piece < least) continue;
            changes.push_back([=](World& world) {
                auto& list = listOf(world);
                const auto from = list.begin() + static_cast<ptrdiff_t>(at);
                list.erase(from, from + static_cast<ptrdiff_t>(piece));
            });
        }
    }
}

// Sets a part of the world to what it is in a plain one.
template <typename PartOf>
void addPlain(Changes& changes, World world, const PartOf& partOf,
              const std::remove_reference_t<decltype(partOf(world))>& plain) {
    if (partOf(world) == plain) return;
    changes.push_back([=](World& changed) { partOf(changed) = plain; });
}

void addOperations(Changes& changes, const World& world, size_t boot, size_t session,
                   size_t client) {
    const auto operationsOf = [=](World& changed) -> std::vector<Operation>& {
        return changed.boots[boot].sessions[session].clients[client].operations;
    };
    World copy = world;
    const size_t count = operationsOf(copy).size();
    addDrops(changes, count, 1, operationsOf);
    for (size_t i = 0; i < count; ++i) {
        const auto part = [=](auto member) {
            return [=](World & changed) -> auto& { return operationsOf(changed)[i].*member; };
        };
        addPlain(changes, world, part(&Operation::reaction), Reaction::kNone);
        addPlain(changes, world, part(&Operation::pause), Nanos(0));
    }
}

void addSessions(Changes& changes, const World& world, size_t boot) {
    const std::vector<Session>& sessions = world.boots[boot].sessions;
    addDrops(
        changes, sessions.size(),
        1, [=](World & changed) -> auto& { return changed.boots[boot].sessions; });
    for (size_t i = 0; i < sessions.size(); ++i) {
        const auto part = [=](auto member) {
            return [=](World & changed) -> auto& {
                return changed.boots[boot].sessions[i].*member;
            };
        };
        addDrops(changes, sessions[i].clients.size(), 0, part(&Session::clients));
        addPlain(changes, world, part(&Session::requestsAtOnce), 0U);
        addPlain(changes, world, part(&Session::isNewProcess), true);
        if (boot + 1 < world.boots.size()) {
            addPlain(changes, world, part(&Session::updateMcu), false);
            addPlain(changes, world, part(&Session::loadFpga), false);
        }
        for (size_t c = 0; c < sessions[i].clients.size(); ++c) {
            addOperations(changes, world, boot, i, c);
        }
    }
}

void addChances(Changes& changes, const World& world, size_t boot) {
    using board::ChanceRates;
    using board::NoiseRates;
    for (const auto rate : {&ChanceRates::spuriousWakeUps, &ChanceRates::interruptions,
                            &ChanceRates::shortTransfers, &ChanceRates::clockSteps}) {
        const auto part = [=](World & changed) -> auto& {
            return changed.boots[boot].chances.*rate;
        };
        addPlain(changes, world, part, 0U);
    }
    for (const auto rate : {&NoiseRates::flipped, &NoiseRates::dropped, &NoiseRates::doubled}) {
        const auto part = [=](World & changed) -> auto& { return changed.boots[boot].noise.*rate; };
        addPlain(changes, world, part, 0U);
    }
}

void addBoot(Changes& changes, const World& world, size_t boot) {
    const Boot& now = world.boots[boot];
    const auto part = [=](auto member) {
        return [=](World & changed) -> auto& { return changed.boots[boot].*member; };
    };
    addDrops(changes, now.faults.size(), 0, part(&Boot::faults));
    addDrops(changes, now.disturbances.size(), 0, part(&Boot::disturbances));
    if (now.cut) changes.push_back([=](World& changed) { changed.boots[boot].cut.reset(); });
    addChances(changes, world, boot);
    addPlain(changes, world, part(&Boot::networkIsUp), true);
    // First whether any draw matters, then how many.
    constexpr uint64_t kSteps = 1U << 16;
    for (uint64_t steps = 0; steps < std::min(now.drawnSteps, kSteps); steps = steps * 2 + 1) {
        changes.push_back([=](World& changed) { changed.boots[boot].drawnSteps = steps; });
    }
    if (now.drawnSteps > 0 && now.drawnSteps < kSteps) {
        changes.push_back([=](World& changed) { --changed.boots[boot].drawnSteps; });
    }
    addSessions(changes, world, boot);
}

void addBoard(Changes& changes, const World& world) {
    const World plain;
    const auto add = [&](auto member) {
        addPlain(
            changes, world, [=](World & changed) -> auto& { return changed.*member; },
            plain.*member);
    };
    add(&World::parts);
    add(&World::productFile);
    add(&World::screen);
    add(&World::logLevel);
    add(&World::selfTestItems);
    add(&World::codecs);
    add(&World::fpgaIsPending);
    add(&World::mcuIsOlder);
    add(&World::mcuIsBlank);
    add(&World::mcuImage);
    add(&World::fpgaImage);
    add(&World::part);
    add(&World::product);
}

Changes changesOf(const World& world) {
    Changes changes;
    addDrops(
        changes, world.boots.size() - 1, 0, [](World & changed) -> auto& { return changed.boots; });
    for (size_t boot = 0; boot < world.boots.size(); ++boot) addBoot(changes, world, boot);
    addBoard(changes, world);
    return changes;
}

}  // namespace

std::string kindOf(const std::string& finding) { return finding.substr(0, finding.find(':')); }

Shrunk shrink(const World& world, const std::string& finding, unsigned triesMost,
              const std::function<std::string(const World&)>& findingOf) {
    Shrunk shrunk{world, finding};
    for (bool isSmaller = true; isSmaller && shrunk.tries < triesMost;) {
        isSmaller = false;
        for (const Change& change : changesOf(shrunk.world)) {
            if (shrunk.tries >= triesMost) break;
            World smaller = shrunk.world;
            change(smaller);
            ++shrunk.tries;
            std::string found = findingOf(smaller);
            if (found.empty() || kindOf(found) != kindOf(finding)) continue;
            shrunk.world = std::move(smaller);
            shrunk.finding = std::move(found);
            isSmaller = true;
            break;
        }
    }
    return shrunk;
}

}  // namespace quil::swarm
