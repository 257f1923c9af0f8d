// What has to hold of a board at the end of a boot, whatever happened before.
#pragma once

#include <set>
#include <string>

#include "host/hosting_component.h"
#include "tests/swarm/world.h"

namespace quil::swarm {

// After any boot: no violation, no message but the known ones, no half image started. Where the
// product file does not describe the board, the MCU may be spoken to in the wrong way.
std::string problemOfBoot(const Boot&, board::Board&, bool isDescribed);
// After the clean one as well: the shipped firmware runs and stands whole in the flashes.
std::string problemOfCleanBoot(const World&, board::Board&, const host::HostingComponent&);

// Refused by what stands at the MCU's line, which cannot know that the line is to blame.
bool isOfTheLink(const std::string& violation, board::Board&);

// What a process holds; the same before and after a world.
struct Held {
    std::multiset<std::string> descriptors;  // what each stands for
    size_t threads = 0, callbacks = 0;
    static Held now();
    std::string differenceTo(const Held& later) const;
};

}  // namespace quil::swarm
