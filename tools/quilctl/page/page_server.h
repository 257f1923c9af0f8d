// The page of a served board, on 127.0.0.1. It is a client of the board's server like any other, in
// a process of its own: what a browser does never meets the board's threads.
#pragma once

#include <httplib.h>

#include <atomic>
#include <string>
#include <thread>

#include "tools/quilctl/page/page_gate.h"

namespace quil::tools {

class PageServer {
  public:
    // Port 0: a free one. Throws Failure.
    PageServer(std::string directory, int port);
    ~PageServer();
    PageServer(const PageServer&) = delete;
    PageServer& operator=(const PageServer&) = delete;

    const PageGate& gate() const { return mGate; }
    std::string address() const { return mGate.origin() + "/?token=" + mGate.token; }

  private:
    using Handled = httplib::Server::HandlerResponse;

    static constexpr int kReadersMost = 32;

    Handled admit(const httplib::Request& request, httplib::Response& response) const;
    void addRoutes();
    void run(const httplib::Request& request, httplib::Response& response) const;
    void showScreen(httplib::Response& response) const;
    void stream(httplib::Response& response);

    const std::string mDirectory;
    httplib::Server mServer;
    PageGate mGate;
    std::atomic<bool> mEnds{false};
    std::atomic<int> mReaders{0};
    std::thread mThread;
};

}  // namespace quil::tools
