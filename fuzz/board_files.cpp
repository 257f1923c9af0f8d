// A board's files, whatever stands in them: what `board check` says of them, and what the parts
// make of them. Input, for each file: a byte that names it, a length (16 bits), and its bytes.
#include <array>
#include <stdexcept>
#include <tuple>

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

constexpr size_t kOneInDirectory = 64;  // of so many lengths of an input

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

using Problems = std::vector<board::BoardProblem>;

// What `board check` says of a board with the files of one input at a time: in memory, and, a
// hundred times slower, in a directory.
class CheckedBoard {
  public:
    CheckedBoard() {
        board::createBoardDirectory(mDirectory, board::Product::kHeron);
        for (const char* name : kNames) restore(name);  // with the small images
    }

    Problems inMemory(const OverlayStore::Files& files) {
        for (const auto& [name, content] : files) mBoard.replace(name, *content);
        Problems problems = board::checkBoard(mBoard, board::Product::kHeron);
        for (const auto& [name, content] : files) {
            const auto former = mFormer.read(name);
            if (former) mBoard.replace(name, *former);
            if (!former) mBoard.remove(name);
        }
        return problems;
    }
    Problems inDirectory(const OverlayStore::Files& files) const {
        for (const auto& [name, content] : files) {
            board::writeWholeFile(mDirectory / name, *content);
        }
        Problems problems = board::checkBoard(mDirectory, board::Product::kHeron);
        for (const auto& [name, content] : files) restore(name);
        return problems;
    }

  private:
    void restore(const std::string& name) const {
        const auto former = mFormer.read(name);
        if (former) board::writeWholeFile(mDirectory / name, *former);
        if (!former) std::filesystem::remove(mDirectory / name);
    }

    static board::MemoryStore wholeBoard() {
        board::MemoryStore store = *PoweredBoard::factory();
        store.replace(board::kFormatFile, board::textOf(board::BoardFormat()));
        return store;
    }

    const board::MemoryStore mFormer = wholeBoard();
    board::MemoryStore mBoard = mFormer;
    const board::TemporaryDirectory mPlace{"fuzz"};
    const std::filesystem::path mDirectory = mPlace.path() / "board";
};

bool saySame(const Problems& some, const Problems& others) {
    return std::equal(some.begin(), some.end(), others.begin(), others.end(),
                      [](const board::BoardProblem& one, const board::BoardProblem& other) {
                          return std::tie(one.severity, one.file, one.line, one.what, one.remedy) ==
                                 std::tie(other.severity, other.file, other.line, other.what,
                                          other.remedy);
                      });
}

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
    static CheckedBoard checked;
    Input input(bytes);
    const OverlayStore::Files files = filesOf(input);
    const Problems problems = checked.inMemory(files);
    if (bytes.size() % kOneInDirectory == 30) {
        check(saySame(checked.inDirectory(files), problems), "a directory has other problems");
    }
    bool isBlocked = false;
    for (const board::BoardProblem& problem : problems) {
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
