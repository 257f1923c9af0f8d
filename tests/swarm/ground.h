// The board's directories that the worlds of one process run in, one for each product: a world
// changes the few files that it has of its own, the parts keep theirs in memory.
#pragma once

#include <filesystem>
#include <map>
#include <memory>
#include <string>

#include "board/core/store.h"
#include "board/core/temporary_directory.h"
#include "tests/swarm/world.h"

namespace quil::swarm {

class Ground {
  public:
    // Makes the directory ready for the world, and returns it.
    std::filesystem::path prepare(const World&);
    // What the board's parts hold before the first boot.
    static board::OverlayStore::Files keptBefore(const World&);

    static std::string mcuImageOf(const World&, const char* version);
    static std::string fpgaImageOf(const World&, const char* version);

  private:
    struct Place {
        board::TemporaryDirectory directory;
        std::string productFile;                     // from the factory
        std::map<std::string, std::string> written;  // what stands in the files now
    };

    static void write(Place&, const std::string& name, const std::string& content);

    std::map<board::Product, std::unique_ptr<Place>> mPlaces;
};

}  // namespace quil::swarm
