// A board that this process serves, and commands on it.
#pragma once

#include <atomic>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/quilctl/test_run.h"
#include "tools/quilctl/serve/serving.h"

namespace quil::tests {

// What the server says to one request, until it has done it. Throws Failure if it is refused.
inline std::vector<tools::Json> answersTo(tools::ServerConnection& server,
                                          const tools::Request& request) {
    server.send(request);
    std::vector<tools::Json> answers;
    for (auto one = server.receive(""); one; one = server.receive("")) {
        answers.push_back(*one);
        if (one->contains("exit") || one->contains("watching")) break;
    }
    return answers;
}

class ServedRun : public QuilctlRun {
  protected:
    ~ServedRun() override { end(); }

    void serve(int speed = 0, const std::filesystem::path& ports = {}) {
        board = newBoard();
        start(speed, ports);
    }
    void start(int speed = 0, const std::filesystem::path& ports = {}) {
        mServing.emplace(board, tools::ServedBoard::Power{.speed = speed}, ports);
        mThread = std::thread([this] {
            mServing->run([this] {
                mIsReady = true;
                mIsReady.notify_one();
            });
        });
        mIsReady.wait(false);
    }
    void end() {
        if (!mServing) return;
        mServing->close();
        mThread.join();
        mServing.reset();
    }
    Said on(const tools::Words& words) const {
        return quilctl(tools::Words{"--board", board} + words);
    }
    tools::ServerConnection connection() const {
        return std::move(*tools::ServerConnection::to(board));
    }
    tools::Request run(const tools::Words& words) const {
        return {.words = words, .folder = "/", .board = board};
    }

    // In the middle of a command, whose library on() would make anew.
    void cutPower() const {
        auto server = connection();
        tools::Request cut = run({"power", "cut"});
        cut.atOnce = true;
        EXPECT_EQ(answersTo(server, cut).back().value("exit", 1), tools::kOk);
    }

    std::string board;

  private:
    std::atomic<bool> mIsReady{false};
    std::optional<tools::Serving> mServing;
    std::thread mThread;
};

}  // namespace quil::tests
