// How a session ends, and what went wrong on the way. Text, JSON and exit code come from these
// tables.
#pragma once

#include <stddef.h>

#include <array>
#include <stdexcept>
#include <string>

namespace quil::programmer {

enum class Outcome {
    kProgrammed,
    kAlreadyCurrent,      // the flash holds the image: nothing was erased or written
    kDone,                // of a session that does not program
    kDiffers,             // the flash does not hold the image
    kRefused,             // nothing was changed
    kFailedLoaderWaits,   // no application can start; the boot loader answers
    kFailedStateUnknown,  // the boot loader does not answer any more
};

struct OutcomeRow {
    Outcome outcome;
    const char* name;     // in JSON
    const char* meaning;  // in text
};
inline constexpr std::array<OutcomeRow, 7> kOutcomes = {{
    {Outcome::kProgrammed, "programmed", "programmed and verified"},
    {Outcome::kAlreadyCurrent, "already_current", "already current, nothing was written"},
    {Outcome::kDone, "done", "done"},
    {Outcome::kDiffers, "differs", "the flash does not hold the image"},
    {Outcome::kRefused, "refused", "refused, nothing was changed"},
    {Outcome::kFailedLoaderWaits, "failed_loader_waits", "failed, the boot loader waits"},
    {Outcome::kFailedStateUnknown, "failed_state_unknown", "failed, state unknown"},
}};
constexpr const OutcomeRow& rowOf(Outcome outcome) {
    return kOutcomes[static_cast<size_t>(outcome)];
}

// What the line or the part does to a session. Each is counted.
enum class Trouble {
    kJunk,
    kDamagedAck,
    kLostAnswer,
    kNack,
    kShortReply,
    kBusy,
    kPartReset,
    kAlreadySynchronised,
    kHalfCommand,
    kWrongParity,
    kApplication,
    kFlippedBit,
    kWrongCell,
    kRateStep,
    kLineReset,
};

struct TroubleRow {
    Trouble trouble;
    const char* name;    // in JSON
    const char* means;   // what was seen
    const char* answer;  // what the programmer did
};
inline constexpr std::array<TroubleRow, 15> kTroubles = {{
    {Trouble::kJunk, "junk", "bytes before an answer", "skipped"},
    {Trouble::kDamagedAck, "damaged_ack", "a byte in the place of an answer", "back in step"},
    {Trouble::kLostAnswer, "lost_answer", "no answer from a boot loader that listens",
     "back in step"},
    {Trouble::kNack, "nack", "a refusal that did not last", "repeated"},
    {Trouble::kShortReply, "short_reply", "a reply with bytes missing", "read again"},
    {Trouble::kBusy, "busy", "an answer far later than the part's longest time", "waited for"},
    {Trouble::kPartReset, "part_reset", "the part has reset by itself", "synchronised again"},
    {Trouble::kAlreadySynchronised, "already_synchronised",
     "the boot loader was synchronised before", "went on"},
    {Trouble::kHalfCommand, "half_command", "the boot loader waited for the rest of a request",
     "completed with a wrong checksum"},
    {Trouble::kWrongParity, "wrong_parity", "synchronised, but deaf to commands",
     "the next parity"},
    {Trouble::kApplication, "application", "an application answers, not the boot loader",
     "reset into the boot loader"},
    {Trouble::kFlippedBit, "flipped_bit", "a reading that two others contradict", "read again"},
    {Trouble::kWrongCell, "wrong_cell", "a cell of the flash with a wrong value",
     "its page written again"},
    {Trouble::kRateStep, "rate_step", "too many bad answers at this rate", "a lower rate"},
    {Trouble::kLineReset, "line_reset", "nothing else brought the part back into step",
     "reset by NRST"},
}};
constexpr const TroubleRow& rowOf(Trouble trouble) {
    return kTroubles[static_cast<size_t>(trouble)];
}

// Ends a session.
class SessionEnd : public std::runtime_error {
  public:
    SessionEnd(const std::string& what, std::string remedy)
        : std::runtime_error(what), mRemedy(std::move(remedy)) {}
    const std::string& remedy() const { return mRemedy; }

  private:
    std::string mRemedy;
};
// The boot loader answers, and says no; or a check before the first change does.
class Refusal : public SessionEnd {
  public:
    using SessionEnd::SessionEnd;
};
// The boot loader does not answer any more.
class LinkLost : public SessionEnd {
  public:
    using SessionEnd::SessionEnd;
};
// The line is too bad for its rate: the session can go on at a lower one.
class BadLine : public LinkLost {
  public:
    using LinkLost::LinkLost;
};
// The caller's `cancelled` said so.
class Cancelled : public SessionEnd {
  public:
    Cancelled() : SessionEnd("interrupted", "run the same command again: it goes on from here") {}
};

}  // namespace quil::programmer
