// The page's server beside the board's, as a process of its own.
#pragma once

#include <sys/types.h>

#include <filesystem>

namespace CLI {
class App;
}

namespace quil::tools {

struct Cli;

class PageProcess {
  public:
    // Throws Failure when it does not start.
    PageProcess(const std::filesystem::path& directory, int port);
    ~PageProcess();  // which ends it
    PageProcess(const PageProcess&) = delete;
    PageProcess& operator=(const PageProcess&) = delete;

  private:
    pid_t mProcess = -1;
};

void addPageCommand(CLI::App& app, Cli& cli);

}  // namespace quil::tools
