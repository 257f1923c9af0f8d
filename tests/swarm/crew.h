// Pieces of work in several processes, each of which may come to a bad end without harm to others.
#pragma once

#include <stdint.h>

#include <chrono>
#include <functional>
#include <string>

#include "tests/swarm/child.h"

namespace quil::swarm {

// Every so many pieces, from one on: what one machine of several does.
struct Shard {
    uint64_t first = 0, step = 1;
    uint64_t at(uint64_t index) const { return first + index * step; }
    uint64_t sizeOf(uint64_t count) const {
        return count <= first ? 0 : (count - first - 1) / step + 1;
    }
};
// Reads "I/N". Returns what is wrong with it, or "".
std::string problemOfShard(const std::string& text, Shard&);

// Does the piece of that number: tells one line, and may end the process after it.
using Work = std::function<void(uint64_t piece)>;
// Called in each process, before its first piece.
using Hire = std::function<Work(const Child::Tell&)>;

struct PieceEnd {
    uint64_t piece;
    std::string line;    // that was told; "" after a bad end
    std::string badEnd;  // "crash: ...", "endless: ...", or ""
};

// Does the pieces from 0 on in so many processes, and calls `ended` with each, until all are done
// or the time is over. Returns how many there were.
uint64_t runPieces(uint64_t count, unsigned processes, std::chrono::seconds most, const Hire&,
                   const std::function<void(const PieceEnd&)>& ended);

// How a process came to its end, in the words of a finding. Ends it if it still runs.
std::string badEndOf(Child&);

// Of a piece, in real time. The board ends what waits; this is for what never waits.
inline constexpr std::chrono::minutes kPieceMost{3};

}  // namespace quil::swarm
