// Files that cannot grow, in the place of a full disk, which takes privileges to make.
#pragma once

#include <signal.h>
#include <sys/resource.h>

namespace quil::tests {

// No file of this process becomes longer than this while it lives: writing on fails with EFBIG.
class ShortFiles {
  public:
    explicit ShortFiles(rlim_t longest) : mFormerAction(signal(SIGXFSZ, SIG_IGN)) {
        getrlimit(RLIMIT_FSIZE, &mFormer);
        const rlimit shorter{longest, mFormer.rlim_max};
        setrlimit(RLIMIT_FSIZE, &shorter);
    }
    ~ShortFiles() {
        setrlimit(RLIMIT_FSIZE, &mFormer);
        signal(SIGXFSZ, mFormerAction);
    }
    ShortFiles(const ShortFiles&) = delete;
    ShortFiles& operator=(const ShortFiles&) = delete;

  private:
    const sighandler_t mFormerAction;
    rlimit mFormer{};
};

}  // namespace quil::tests
