#include "tools/quilctl/page/page_process.h"

#include <errno.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

#include "tools/quilctl/output/result.h"

namespace quil::tools {

PageProcess::PageProcess(const std::filesystem::path& directory, int port) {
    std::string words[] = {"quilctl", "--board", directory.string(),
                           "page",    "--port",  std::to_string(port)};
    char* const argv[] = {words[0].data(), words[1].data(), words[2].data(), words[3].data(),
                          words[4].data(), words[5].data(), nullptr};
    const int error = posix_spawn(&mProcess, "/proc/self/exe", nullptr, nullptr, argv, environ);
    if (error != 0) throw failureOf(kNoBoard, "the page's server does not start", error);
}

PageProcess::~PageProcess() {
    kill(mProcess, SIGTERM);
    while (waitpid(mProcess, nullptr, 0) < 0 && errno == EINTR) {
    }
}

}  // namespace quil::tools
