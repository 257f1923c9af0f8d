// The store of a powered board. Its parts write on threads and in destructors, where nobody could
// catch: a failure is remembered instead of thrown.
#pragma once

#include <string>

#include "board/core/store.h"

namespace quil::board {

class KeptStore : public DirectoryStore {
  public:
    using DirectoryStore::DirectoryStore;
    void replace(const std::string& name, std::string_view content) override;
};

// For destructors, which cannot throw.
void rememberKeepFailure(const std::string& why);
// What first could not be written since the last call; "" when all was. It outlives the board,
// whose last writes are those of its destruction.
std::string takeKeepFailure();

}  // namespace quil::board
