// A board's files, whatever stands in them: what `board check` says of them, and what the parts
// make of them. Input, for each file: a byte that names it, a length (16 bits), and its bytes.
#include <array>
#include <stdexcept>

#include "board/board_check.h"
#include "board/core/temporary_directory.h"
#include "board/core/whole_file.h"
#include "fuzz/check.h"
#include "fuzz/input.h"
#include "fuzz/powered_board.h"
#include "fuzz/targets.h"

namespace quil::fuzz {
namespace {

using board::OverlayStore;

constexpr std::array<const char*, 10> kNames = {"properties",
                                                "parts",
                                                "mcu/values",
                                                "mcu/option_bytes",
                                                "mcu/flash",
                                                "product_information",
                                                "mtd0",
                                                board::kProductFile,
                                                board::kFormatFile,
                                                "rootfs/vendor/firmware/mcu_Heron.bin"};

OverlayStore::Files filesOf(Input& input) {
    OverlayStore::Files files;
    while (!input.empty()) {
        const char* name = kNames.at(input.byte() % kNames.size());
        files[name] = textOf(input.take(input.word()));
    }
    return files;
}

// The same board in a directory, which `board check` reads.
class Directory {
  public:
    Directory() {
        board::createBoardDirectory(mPlace.path() / "board", board::Product::kHeron);
        for (const char* name : kNames) {  // with the small images
            if (const auto content = PoweredBoard::factory()->read(name)) put(name, *content);
        }
    }

    std::vector<board::BoardProblem> problemsWith(const OverlayStore::Files& files) const {
        for (const auto& [name, content] : files) put(name, *content);
        auto problems = board::checkBoard(mPlace.path() / "board", board::Product::kHeron);
        for (const auto& [name, content] : files) {
            const auto former = PoweredBoard::factory()->read(name);
            if (former) put(name, *former);
            if (!former) std::filesystem::remove(mPlace.path() / "board" / name);
        }
        return problems;
    }

  private:
    void put(const std::string& name, std::string_view content) const {
        board::writeWholeFile(mPlace.path() / "board" / name, content);
    }

    const board::TemporaryDirectory mPlace{"fuzz"};
};

// A board that the check lets pass can be powered; one that cannot says why.
bool powersOn(const std::shared_ptr<OverlayStore>& store) {
    try {
        board::Board board(store);
        board.runFor(std::chrono::milliseconds(100));
        board.properties().set("fuzz", "1");
        check(board.properties().get("fuzz") == "1", "a property is not the one that was set");
        return true;
    } catch (const Finding&) {
        throw;
    } catch (const std::runtime_error& refusal) {
        check(refusal.what()[0] != '\0', "a refusal without a word");
        return false;
    }
}

}  // namespace

void boardFiles(std::span<const uint8_t> bytes) {
    static const Directory directory;
    Input input(bytes);
    const OverlayStore::Files files = filesOf(input);
    bool isBlocked = false;
    for (const board::BoardProblem& problem : directory.problemsWith(files)) {
        check(!problem.what.empty() && !problem.file.empty(), "a problem without a word");
        isBlocked = isBlocked || problem.severity == board::Severity::kBlocking;
    }
    const auto store = std::make_shared<OverlayStore>(PoweredBoard::factory(), files);
    check(isBlocked || powersOn(store), "a board that is checked cannot be powered");
    // What the parts have written they read again, and keep as it is.
    if (isBlocked) return;
    const OverlayStore::Files kept = store->written();
    check(powersOn(store), "what the parts keep, they do not understand");
    check(store->written() == kept, "kept again, it is something else");
}

}  // namespace quil::fuzz
