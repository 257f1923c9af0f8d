// All power cuts of a run, without a run for each: one uncut run tells what each cut would leave,
// and cuts that leave the same are one state, from which one boot shows what comes of them.
#pragma once

#include <charconv>
#include <filesystem>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "board/board.h"
#include "board/core/store.h"
#include "board/core/whole_file.h"
#include "testing/library_state.h"

namespace quil::tests {

using board::PowerCut;
using KeptFiles = board::OverlayStore::Files;

// "123:before", "123:inside:2", "123:after".
inline std::string nameOf(const PowerCut& cut) {
    const std::string name = std::to_string(cut.event) + ":" + nameOf(cut.position);
    return cut.position == board::CutPosition::kInside ? name + ":" + std::to_string(cut.tear)
                                                       : name;
}

inline std::optional<PowerCut> cutNamed(std::string_view text) {
    PowerCut cut{};
    const char* end = text.data() + text.size();
    const char* at = std::from_chars(text.data(), end, cut.event).ptr;
    for (const auto position :
         {board::CutPosition::kBefore, board::CutPosition::kInside, board::CutPosition::kAfter}) {
        const std::string name = std::string(":") + nameOf(position);
        if (std::string_view(at, end).rfind(name, 0) != 0) continue;
        cut.position = position;
        at += name.size();
        if (at != end) at = std::from_chars(at + 1, end, cut.tear).ptr;
        return at == end ? std::optional(cut) : std::nullopt;
    }
    return std::nullopt;
}

struct CutState {
    KeptFiles files;
    PowerCut first{};  // of the cuts that leave this
    uint64_t cuts = 0;
};

// The states in the order in which they were first left, each once.
class CutStates {
  public:
    void add(const PowerCut& cut, const KeptFiles& left) {
        if (mStates.empty() || mStates[mLast].files != left) {
            const auto [found, isNew] = mKnown.try_emplace(left, mStates.size());
            if (isNew) mStates.push_back({left, cut});
            mLast = found->second;
        }
        ++mStates[mLast].cuts;
    }
    std::vector<CutState> take() { return std::move(mStates); }

  private:
    std::map<KeptFiles, size_t> mKnown;
    std::vector<CutState> mStates;
    size_t mLast = 0;  // most cuts leave what the one before left
};

// Runs of one board: each starts with the directory's files and those that were kept, and keeps all
// that it writes in memory.
class CutSweep {
  public:
    using Run = std::function<void(board::Board&)>;

    CutSweep(std::filesystem::path directory, Run run)
        : mDirectory(std::move(directory)), mRun(std::move(run)) {}

    // Boots with these files kept; returns those that are kept afterwards. `judge` sees the board
    // before the power goes.
    KeptFiles boot(const KeptFiles& files, const Run& judge = {}) const {
        const FreshLibrary library;
        const auto store = storeWith(files);
        {
            board::Board board(mDirectory, {.store = store});
            board.trace().setRecording(false);
            mRun(board);
            if (judge) judge(board);
        }
        return store->written();
    }

    // What is left by each cut in a boot with these files kept, each state once. The cuts when
    // power comes and goes are not among them.
    std::vector<CutState> statesIn(const KeptFiles& files) const {
        const FreshLibrary library;
        CutStates states;
        board::Board board(mDirectory, {.store = storeWith(files)});
        board.trace().setRecording(false);
        board.onEachCut([&](const PowerCut& cut, const KeptFiles& left) { states.add(cut, left); });
        mRun(board);
        board.onEachCut(nullptr);
        return states.take();
    }

    // What that cut leaves, by a run that really ends there; nothing if it does not.
    std::optional<KeptFiles> leftBy(const PowerCut& cut, const KeptFiles& files) const {
        const FreshLibrary library;
        const auto store = storeWith(files);
        bool wasCut = false;
        {
            board::Board board(mDirectory, {.store = store});
            board.trace().setRecording(false);
            board.cutPowerAt(cut);
            mRun(board);
            wasCut = board.powerIsCut();
        }
        return wasCut ? std::optional(store->written()) : std::nullopt;
    }

    // The file as a boot with these files kept would find it.
    std::string fileIn(const KeptFiles& files, const std::string& name) const {
        return board::OverlayStore(mDirectory, files).read(name).value_or("");
    }

  private:
    std::shared_ptr<board::OverlayStore> storeWith(const KeptFiles& files) const {
        return std::make_shared<board::OverlayStore>(mDirectory, files);
    }

    const std::filesystem::path mDirectory;
    const Run mRun;
};

}  // namespace quil::tests
