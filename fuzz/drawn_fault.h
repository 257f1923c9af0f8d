// A fault that an input draws.
#pragma once

#include <errno.h>

#include <iterator>
#include <optional>

#include "board/board.h"
#include "fuzz/input.h"

namespace quil::fuzz {

// The first byte names the call and the error; 0 is no fault. Returns the call that fails.
inline std::optional<board::Call> addFault(board::Board& board, Input& input) {
    using board::Call;
    constexpr Call kCalls[] = {Call::kRead,      Call::kWrite,   Call::kOpen,   Call::kTcsetattr,
                               Call::kTcgetattr, Call::kTcflush, Call::kSystem, Call::kFopen,
                               Call::kStat,      Call::kAccess,  Call::kPoll,   Call::kFcntl};
    constexpr int kErrors[] = {EIO, EAGAIN, EINTR, ENODEV, ENOSPC, EBADF};
    const uint8_t what = input.byte();
    const uint8_t after = input.byte(), times = input.byte();
    if (what == 0) return std::nullopt;
    const size_t call = what % std::size(kCalls), error = what / std::size(kCalls);
    board::Fault fault{.call = kCalls[call], .after = after, .times = times};
    if (error < std::size(kErrors)) {
        fault.error = kErrors[error];
    } else if (kCalls[call] == Call::kRead || kCalls[call] == Call::kWrite) {
        fault.shortTo = 1 + error % 3;
    } else {
        fault.error = EACCES;
    }
    board.faults().add(fault);
    return fault.call;
}

}  // namespace quil::fuzz
