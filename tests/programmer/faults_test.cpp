// What a line and a part do to a session: eight faults, each alone and in all ordered pairs.
#include "testing/project_files.h"
#include "testing/whole.h"
#include "tests/programmer/part_on_board.h"

namespace quil::tests {
namespace {

using board::LoaderFault;
using board::LoaderStep;
using std::chrono::milliseconds;
using std::chrono::seconds;
using Kind = board::LoaderFault::Kind;

enum class Blow {
    kWrongCell,
    kNack,
    kAckLost,
    kJunk,
    kDamagedAck,
    kBusy,
    kFlippedBit,
    kShortReply
};

struct FaultRow {
    Blow blow;
    const char* name;
    Trouble seenAs;
    milliseconds costs;  // at most, beyond an undisturbed session: AN3155 parts
};
constexpr FaultRow kFaults[] = {
    {Blow::kWrongCell, "wrong cell", Trouble::kWrongCell, milliseconds(6000)},
    {Blow::kNack, "NACK", Trouble::kNack, milliseconds(100)},
    {Blow::kAckLost, "lost ACK", Trouble::kLostAnswer, milliseconds(1500)},
    {Blow::kJunk, "junk", Trouble::kJunk, milliseconds(100)},
    {Blow::kDamagedAck, "damaged ACK", Trouble::kDamagedAck, milliseconds(1500)},
    {Blow::kBusy, "busy for 3 s", Trouble::kBusy, milliseconds(3500)},
    {Blow::kFlippedBit, "flipped bit", Trouble::kFlippedBit, milliseconds(200)},
    {Blow::kShortReply, "short reply", Trouble::kShortReply, milliseconds(500)},
};

constexpr int kWriteNumber = 2, kReadNumber = 6;

LoaderFault stmFault(Blow blow) {
    LoaderFault fault{.command = 0x31, .step = LoaderStep::kFinished, .after = kWriteNumber};
    switch (blow) {
        case Blow::kWrongCell:
            fault.kind = Kind::kWrongCell;
            fault.step = LoaderStep::kData;
            break;
        case Blow::kNack:
            fault.kind = Kind::kNack;
            break;
        case Blow::kAckLost:
            fault.kind = Kind::kAckLost;
            break;
        case Blow::kJunk:
            fault.kind = Kind::kJunk;
            break;
        case Blow::kDamagedAck:
            fault.kind = Kind::kDamagedAck;
            break;
        case Blow::kBusy:
            fault.kind = Kind::kBusy;
            fault.delay = seconds(3);
            break;
        case Blow::kFlippedBit:
        case Blow::kShortReply:
            fault.kind = blow == Blow::kFlippedBit ? Kind::kFlippedBit : Kind::kShortReply;
            fault.command = 0x11;
            fault.step = LoaderStep::kCount;
            fault.after = kReadNumber;
            break;
    }
    return fault;
}

// The N32 answers whole frames: a lost ACK is a lost answer, and the CRC command stands for reads.
LoaderFault faultFor(const std::string& chip, Blow blow) {
    LoaderFault fault = stmFault(blow);
    if (chip != "n32g45x") return fault;
    if (fault.kind == Kind::kAckLost) fault.kind = Kind::kSilent;
    if (fault.kind == Kind::kWrongCell) fault.step = LoaderStep::kCommand;
    if (fault.command == uint8_t{0x11}) {
        fault.command = 0x32;
        fault.step = LoaderStep::kFinished;
        fault.after = 0;
    }
    return fault;
}

class ProgrammerFaults : public testing::TestWithParam<const char*> {
  protected:
    // The part holds another version before; afterwards the new one, or the outcome says why not.
    Report flashWith(const std::vector<Blow>& blows) {
        on.put(older);
        on.chip().loaderFaults().clear();
        for (const Blow blow : blows) on.add(faultFor(GetParam(), blow));
        return on.flash(image);
    }

    PartOnBoard on{GetParam()};
    const Bytes older = on.imageOf("V1.0.0", 1100), image = on.imageOf("V2.0.0", 1100);
};

TEST_P(ProgrammerFaults, EachAloneIsSurvivedCountedAndCheap) {
    const Report calm = flashWith({});
    ASSERT_EQ(calm.outcome, Outcome::kProgrammed) << textOf(calm);
    for (const FaultRow& row : kFaults) {
        SCOPED_TRACE(row.name);
        const Report report = flashWith({row.blow});
        EXPECT_EQ(report.outcome, Outcome::kProgrammed) << textOf(report);
        EXPECT_EQ(on.cells(image.size()), image);
        EXPECT_EQ(report.statistics.times(Trouble::kLineReset), 0U) << textOf(report);
        const bool isN32 = std::string(GetParam()) == "n32g45x";
        if (isN32) {
            EXPECT_GE(report.statistics.troubles(), 1U);
        } else {
            EXPECT_GE(report.statistics.times(row.seenAs), 1U) << textOf(report);
            EXPECT_LE(report.statistics.took - calm.statistics.took, row.costs) << textOf(report);
        }
        EXPECT_LE(report.statistics.pagesErased,
                  calm.statistics.pagesErased + (row.blow == Blow::kWrongCell ? 1 : 0));
    }
}

// The stride of the sample takes each fault as a first and as a second one.
TEST_P(ProgrammerFaults, AllOrderedPairsAreSurvived) {
    constexpr uint64_t kSample = 7;
    const size_t faults = std::size(kFaults);
    for (size_t pair = 0; pair < faults * faults; pair += strideOf(kSample)) {
        const FaultRow &first = kFaults[pair / faults], &second = kFaults[pair % faults];
        SCOPED_TRACE(std::string(first.name) + ", then " + second.name);
        const Report report = flashWith({first.blow, second.blow});
        ASSERT_EQ(report.outcome, Outcome::kProgrammed) << textOf(report);
        ASSERT_EQ(on.cells(image.size()), image) << textOf(report);
        ASSERT_GE(report.statistics.troubles(), 1U);
    }
}

TEST_P(ProgrammerFaults, PartThatResetsInAWriteOrAnEraseIsSynchronisedAgain) {
    const bool isN32 = std::string(GetParam()) == "n32g45x";
    for (const int code : isN32 ? std::vector{0x31, 0x30} : std::vector{0x31, 0x44}) {
        on.put(older);
        on.chip().loaderFaults().clear();
        on.add({.kind = Kind::kReset,
                .command = static_cast<uint8_t>(code),
                .step = isN32 ? LoaderStep::kCommand : LoaderStep::kData});
        const Report report = on.flash(image);
        EXPECT_EQ(report.outcome, Outcome::kProgrammed) << textOf(report);
        EXPECT_GE(report.statistics.troubles(), 1U);
        EXPECT_EQ(on.cells(image.size()), image);
    }
}

TEST(ProgrammerRefusals, ComparisonThatAnN32RefusesOnceIsAskedAgain) {
    PartOnBoard on("n32g45x");
    const Bytes image = on.imageOf("V2.0.0", 1100);
    on.put(image);
    on.add({.kind = Kind::kNack, .command = 0x32, .step = LoaderStep::kCommand});
    const Report report = on.verify(image);
    EXPECT_EQ(report.outcome, Outcome::kAlreadyCurrent) << textOf(report);
    EXPECT_EQ(report.statistics.times(Trouble::kFlippedBit), 1U);
}

// One refusal may be a request that arrived damaged; one that lasts has a cause, which its phase
// tells.
TEST(ProgrammerRefusals, LastingNackIsNamedByThePhaseThatItAnswers) {
    for (const auto& [step, cause] :
         {std::pair(LoaderStep::kCommand, "the command 0x31: read-out protection"),
          std::pair(LoaderStep::kAddress, "the address: the part has no memory there"),
          std::pair(LoaderStep::kData, "the data: write protection, or cells that are not")}) {
        PartOnBoard on("gd32f303");
        on.add({.kind = Kind::kNack, .command = 0x31, .step = step, .times = -1});
        const Report report = on.flash(on.imageOf("V2.0.0", 1100));
        EXPECT_EQ(report.outcome, Outcome::kFailedLoaderWaits);
        EXPECT_THAT(report.reason, testing::HasSubstr(cause));
        EXPECT_EQ(on.runs(), "");
    }
}

TEST(ProgrammerDocument, HasARowForEachTroubleAndOutcome) {
    const std::string text = projectText("docs/programming.md");
    for (const auto& row : programmer::kTroubles) {
        EXPECT_THAT(text, testing::HasSubstr(std::string("| ") + row.means + " | `" + row.name +
                                             "` | " + row.answer + " |"));
    }
    for (const auto& row : programmer::kOutcomes) {
        EXPECT_THAT(text, testing::HasSubstr(std::string("| `") + row.name + "` |"));
    }
}

INSTANTIATE_TEST_SUITE_P(Parts, ProgrammerFaults, testing::ValuesIn(kEveryPart),
                         [](const auto& part) { return std::string(part.param); });

}  // namespace
}  // namespace quil::tests
