#include "board/core/kept_store.h"

#include <mutex>
#include <stdexcept>
#include <utility>

namespace quil::board {
namespace {

std::mutex keepLock;
std::string keepFailure;

}  // namespace

void KeptStore::replace(const std::string& name, std::string_view content) {
    try {
        DirectoryStore::replace(name, content);
    } catch (const std::runtime_error& error) {
        rememberKeepFailure(error.what());
    }
}

void rememberKeepFailure(const std::string& why) {
    const std::lock_guard guard(keepLock);
    if (keepFailure.empty()) keepFailure = why;
}

std::string takeKeepFailure() {
    const std::lock_guard guard(keepLock);
    return std::exchange(keepFailure, "");
}

}  // namespace quil::board
