// A board directory in use by a command.
#pragma once

#include <memory>
#include <string>

#include "board/core/directory_lock.h"
#include "tools/quilctl/cli.h"

namespace quil::tools {

// Waits for others as long as --wait says. Throws Failure or std::runtime_error when it is no board
// directory, or in use still.
std::unique_ptr<board::DirectoryLock> useBoard(const std::string& directory,
                                               board::DirectoryLock::Use use,
                                               const Options& options, const Console& console);

// Throws a Failure when the directory should not be powered as it is.
void requireSoundBoard(const std::string& directory);

}  // namespace quil::tools
