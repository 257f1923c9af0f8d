// What a part of the board needs of the board around it: time, power, the record of what happens,
// faults, and files. Each part gets it at its construction. The powered board is one (Machine); the
// test of a single part makes one of its own.
#pragma once

#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "board/core/faults.h"
#include "board/core/lock.h"
#include "board/core/power.h"
#include "board/core/scheduler.h"
#include "board/core/store.h"
#include "board/core/trace.h"
#include "board/core/violations.h"

namespace quil::board {

class BoardServices {
  public:
    // `root` is the workstation's directory that holds the board's file system; `files` are those
    // in it, by default none.
    BoardServices(Scheduler&, std::shared_ptr<Store>, std::filesystem::path root = {},
                  std::shared_ptr<Store> files = std::make_shared<MemoryStore>());
    ~BoardServices();
    BoardServices(const BoardServices&) = delete;
    BoardServices& operator=(const BoardServices&) = delete;

    // Between these two the calling thread lives in board time, and what happens is recorded.
    void powerOn(int speed = 0, const Schedule& = {}, Standstill = {});
    void powerOff();

    // The model was used as no healthy program uses the real part.
    void violation(const std::string& source, const std::string& text);
    // Board time goes on by that much, and counts as the devices' (Board::deviceTime). Called with
    // the board's lock held, which is given up meanwhile.
    void spendDeviceTime(Nanos duration, const char* what);
    // Who waits for one of several descriptors looks again.
    void readinessChanged() { scheduler.wakeAll(this); }

    // Where a board path lives on the workstation; nothing for paths that are not the board's.
    std::optional<std::filesystem::path> onHost(const char* path) const;
    // Always below the root: ".." does not lead out of it.
    std::filesystem::path hostPath(std::string_view boardPath) const;
    // Files as programs of the board see them; every path is one of the board's file system.
    // readFile: 0 or an errno; the content is appended. replaceFile: the same.
    int readFile(const std::string& boardPath, std::string* content) const;
    int replaceFile(const std::string& boardPath, std::string_view content);
    bool isFile(const std::string& boardPath) const;
    // True for a path that stands for something of the board.
    static bool isBoards(const char* path);

    // A path of the board as one relative to its root.
    static std::string belowRoot(std::string_view boardPath);

    Scheduler& scheduler;
    const std::shared_ptr<Store> store;  // of the parts
    Power power;
    Trace trace;
    Faults faults;
    Violations violations;
    Nanos deviceTime{0};  // waited for devices since power-on

  private:
    const std::shared_ptr<Store> mFiles;
    const std::filesystem::path mRoot;
};

}  // namespace quil::board
