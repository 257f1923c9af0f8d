// What a world's board holds before its first boot, and what ships with it: all in memory.
#pragma once

#include <map>
#include <memory>
#include <string>

#include "board/core/store.h"
#include "tests/swarm/world.h"

namespace quil::swarm {

class Ground {
  public:
    // The factory's board of that product, below what a world has of its own.
    std::shared_ptr<const board::Store> factoryOf(board::Product);
    // What the world has instead.
    static board::OverlayStore::Files keptBefore(const World&);

    static std::string mcuImageOf(const World&, const char* version);
    static std::string fpgaImageOf(const World&, const char* version);

  private:
    std::map<board::Product, std::shared_ptr<const board::Store>> mFactories;
};

}  // namespace quil::swarm
