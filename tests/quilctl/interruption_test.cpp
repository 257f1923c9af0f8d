// Signals in the middle of a command.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>
#include <thread>

#include "board/mcu/mcu_image.h"
#include "testing/build.h"
#include "testing/pty_part.h"
#include "testing/slowed.h"
#include "testing/started_program.h"
#include "tests/quilctl/test_run.h"

namespace quil::tests {
namespace {

using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;

namespace fs = std::filesystem;

const std::string kQuilctlCommand = QUIL_EMULATOR " '" QUIL_BIN_DIR "/quilctl' ";

// Keeps what is printed; a signal comes with the line of that number.
class SignalAtALine : public std::streambuf {
  public:
    SignalAtALine(int signal, int line) : mSignal(signal), mLinesLeft(line) {}
    const std::string& text() const { return mText; }

  protected:
    std::streamsize xsputn(const char* text, std::streamsize count) override {
        for (std::streamsize i = 0; i < count; ++i) overflow(traits_type::to_int_type(text[i]));
        return count;
    }
    int_type overflow(int_type character) override {
        mText += traits_type::to_char_type(character);
        if (mText.back() == '\n' && --mLinesLeft == 0) tools::interrupt(mSignal);
        return character;
    }

  private:
    const int mSignal;
    int mLinesLeft;
    std::string mText;
};

Said interruptedAt(int line, int signal, const std::vector<std::string>& words) {
    std::istringstream in;
    std::ostringstream out;
    SignalAtALine err(signal, line);
    std::ostream errors(&err);
    const int code = exitCodeOf(tools::kBoardProgram, words, {in, out, errors});
    return {code, out.str(), err.text()};
}

std::string lastLineOf(std::string text) {
    if (!text.empty()) text.pop_back();
    const size_t before = text.rfind('\n');
    return before == std::string::npos ? text : text.substr(before + 1);
}

class QuilctlInterruption : public QuilctlRun {
  protected:
    QuilctlInterruption() {
        fs::create_directory(directory / "tmp");
        const char* former = getenv("TMPDIR");
        if (former != nullptr) mFormer = former;
        setenv("TMPDIR", path("tmp").c_str(), 1);
    }
    ~QuilctlInterruption() override {
        if (mFormer.empty()) {
            unsetenv("TMPDIR");
        } else {
            setenv("TMPDIR", mFormer.c_str(), 1);
        }
    }

    bool nothingIsLeft() const { return fs::is_empty(path("tmp")); }

  private:
    std::string mFormer;
};

TEST_F(QuilctlInterruption, IsAPowerCutThatSaysWhatIsHalfDoneAndWhatDoesItAgain) {
    const std::string board = newBoard();
    const std::string image = board::makeMcuImage(board::McuKind::kGd32F303, "V1.2.0", 4096);
    const tools::Words update = {"--trace", path("t.txt"), "--board",  board,           "mcu",
                                 "program", "--chip",      "gd32f303", imageFile(image)};
    const Said said = interruptedAt(4, SIGINT, update);
    EXPECT_EQ(said.code, tools::kInterrupted);
    EXPECT_THAT(said.out, IsEmpty());
    const std::string told = lastLineOf(said.err);
    EXPECT_THAT(told, StartsWith("quilctl: interrupted at "));
    EXPECT_THAT(told, HasSubstr(" s of board time: the MCU's flash is half done ("));
    EXPECT_THAT(told, EndsWith("; to do it again: quilctl --trace " + path("t.txt") + " --board " +
                               board + " mcu program --chip gd32f303 " + path("image.bin")));
    EXPECT_THAT(lastLineOf(board::readWholeFile(path("t.txt")).value()),
                EndsWith("power     board: cut by an interruption"));
    EXPECT_EQ(quilctl(update).code, tools::kOk);
}

TEST_F(QuilctlInterruption, LeavesABoardThatTheNextUpdateMendsWheneverItComes) {
    const std::string board = newBoard();
    const tools::Words update = {"--board", board, "mcu", "update", "--installed", "V0.9.0"};
    for (const int line : {1, 5, 12}) {
        SCOPED_TRACE(line);
        const Said said = interruptedAt(line, SIGTERM, update);
        EXPECT_EQ(said.code, tools::kTerminated) << said.err;
        EXPECT_EQ(quilctl({"--board", board, "mcu", "update"}).code, tools::kOk);
    }
}

class QuilctlFlashInterruption : public QuilctlInterruption {
  protected:
    QuilctlFlashInterruption() { setenv("XDG_STATE_HOME", path("state").c_str(), 1); }
    ~QuilctlFlashInterruption() override { unsetenv("XDG_STATE_HOME"); }

    const std::string image =
        imageFile(board::makeMcuImage(board::McuKind::kGd32F303, "V2.0.0", 9000));
};

TEST_F(QuilctlFlashInterruption, LeavesAFlashThatTheSameCommandCompletes) {
    const std::string board = newBoard();
    const tools::Words flash = {"--board", board, "mcu", "flash", image};
    for (const auto& [line, signal] : {std::pair(4, SIGINT), std::pair(5, SIGTERM)}) {
        SCOPED_TRACE(line);
        const Said said = interruptedAt(line, signal, flash);
        EXPECT_EQ(said.code, tools::exitCodeOf(signal)) << said.err;
        EXPECT_THAT(said.err, HasSubstr("the MCU's flash is half done"));
        EXPECT_THAT(lastLineOf(said.err), EndsWith("mcu flash " + image));
    }
    const Said again = quilctl(flash);
    EXPECT_EQ(again.code, tools::kOk) << again.err;
    EXPECT_THAT(again.err, HasSubstr("an earlier session was interrupted after"));
    EXPECT_THAT(again.out, HasSubstr("runs  V2.0.0\n"));
}

TEST_F(QuilctlFlashInterruption, EndsEachCommandOfTheProgrammer) {
    const std::string board = newBoard();
    const std::string file = path("read.bin");
    for (const tools::Words& words : {tools::Words{"verify", image},
                                      {"read", "--size", "4096", file},
                                      {"info"},
                                      {"erase", "--pages", "3"},
                                      {"protect", "--sectors", "9"},
                                      {"unprotect", "--write"},
                                      {"rescue", image}}) {
        SCOPED_TRACE(words.front());
        const Said said =
            interruptedAt(1, SIGTERM, tools::Words{"--board", board, "--json", "mcu"} + words);
        EXPECT_EQ(said.code, tools::kTerminated) << said.err;
        EXPECT_EQ(nlohmann::json::parse(said.out)["error"]["kind"], "terminated");
    }
    EXPECT_FALSE(fs::exists(file));
    EXPECT_EQ(quilctl({"--board", board, "mcu", "flash", image}).code, tools::kOk);
}

// The part hangs in a write, so that the signal comes before the end of the session.
TEST_F(QuilctlFlashInterruption, AtARealPortIsToldAndTheNextRunGoesOn) {
    PtyPart part({.part = board::McuKind::kGd32F303, .flash = directory / "flash"});
    part.rest().faults().add({.kind = board::LoaderFault::Kind::kHangs,
                              .command = 0x31,
                              .step = board::LoaderStep::kData,
                              .after = 3});
    part.serve();
    const std::string flash = "mcu flash --port " + part.port() + " '" + image + "'";
    StartedProgram program(kQuilctlCommand + flash);
    while (program.output().find("write") == std::string::npos) program.waitForOutput();
    program.signal(SIGTERM);
    EXPECT_EQ(program.end(), tools::kTerminated);
    EXPECT_THAT(program.output(), HasSubstr("the boot loader waits: interrupted\n"));
    part.rest().faults().clear();
    part.serve();
    const Said again = quilctl({"mcu", "flash", "--port", part.port(), image});
    EXPECT_EQ(again.code, tools::kOk) << again.err;
    EXPECT_THAT(again.err, HasSubstr("an earlier session was interrupted after"));
}

TEST_F(QuilctlInterruption, OfAnFpgaUpdateSaysThatItsFlashIsHalfDone) {
    const std::string board = newBoard();
    const Said said = interruptedAt(
        4, SIGINT,
        {"--board", board, "fpga", "flash", board + "/rootfs/vendor/firmware/fpga_Heron.bin"});
    EXPECT_EQ(said.code, tools::kInterrupted);
    EXPECT_THAT(lastLineOf(said.err), HasSubstr("the FPGA's flash is half done ("));
    EXPECT_THAT(lastLineOf(said.err), HasSubstr("; to do it again: quilctl --board "));
}

TEST_F(QuilctlInterruption, LeavesNothingOfATemporaryBoard) {
    const Said said = interruptedAt(2, SIGINT, {"--log-level", "D", "get", "1"});
    EXPECT_EQ(said.code, tools::kInterrupted);
    EXPECT_THAT(lastLineOf(said.err),
                EndsWith("its board was a temporary one, nothing is left of it; to do it again: "
                         "quilctl --log-level D get 1"));
    EXPECT_TRUE(nothingIsLeft());
}

TEST_F(QuilctlInterruption, HasACodeAndAKindForEachSignal) {
    for (const auto& [signal, code, kind] :
         {std::tuple(SIGINT, 130, "interrupted"), std::tuple(SIGTERM, 143, "terminated"),
          std::tuple(SIGHUP, 129, "hung_up")}) {
        const Said said = interruptedAt(1, signal, {"--json", "--log-level", "D", "get", "1"});
        EXPECT_EQ(said.code, code);
        const auto json = nlohmann::json::parse(said.out);
        EXPECT_EQ(json["exit_code"], code);
        EXPECT_EQ(json["error"]["kind"], kind);
        EXPECT_FALSE(json.contains("result"));
    }
}

TEST_F(QuilctlInterruption, BeforeTheBoardIsOnStopsItAtItsStart) {
    tools::interrupt(SIGTERM);
    const Said said = quilctl({"get", "1"});
    EXPECT_EQ(said.code, tools::kTerminated);
    EXPECT_TRUE(nothingIsLeft());
}

TEST_F(QuilctlInterruption, KeepsNoLogLevelOfTheRun) {
    const std::string board = newBoard();
    interruptedAt(2, SIGINT, {"--board", board, "--log-level", "D", "get", "1"});
    EXPECT_EQ(board::readWholeFile(board + "/properties"), "");
}

TEST_F(QuilctlInterruption, QuotesTheCommandForTheShell) {
    const std::string board = (directory / "it's one").string();
    ASSERT_EQ(quilctl({"board", "new", board}).code, tools::kOk);
    const Said said = interruptedAt(1, SIGINT, {"--log-level=D", "--board", board, "get", "1"});
    EXPECT_THAT(lastLineOf(said.err), EndsWith(" --board '" + path("it'\\''s one") + "' get 1"));
}

TEST_F(QuilctlInterruption, StopsTheProgramInRealTimeAtOnce) {
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        StartedProgram demo(kQuilctlCommand + "--realtime demo");
        demo.waitForOutput();
        demo.signal(signal);
        EXPECT_EQ(demo.end(), 128 + signal);
        EXPECT_FALSE(demo.diedOfASignal());
        EXPECT_THAT(demo.output(), Not(HasSubstr("FAILED")));
        EXPECT_THAT(demo.output(), HasSubstr("to do it again: quilctl --realtime demo\n"));
        EXPECT_TRUE(nothingIsLeft());
    }
}

TEST_F(QuilctlInterruption, EndsTheWaitForStandardInput) {
    int ends[2] = {-1, -1};
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    StartedProgram decode(kQuilctlCommand + "frame decode", {.in = ends[0]});
    for (int i = 0; i < 1000 && !decode.hasEnded(); ++i) {
        decode.signal(SIGTERM);
        usleep(2000);
    }
    EXPECT_EQ(decode.end(), tools::kTerminated);
    EXPECT_TRUE(decode.diedOfASignal() ||
                decode.output() ==
                    "quilctl: terminated while it waited for standard input: nothing done\n");
    close(ends[0]);
    close(ends[1]);
}

// Opening a named pipe waits for its other end.
TEST_F(QuilctlInterruption, SecondOneEndsWhatDoesNotComeToItsEnd) {
    ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
    StartedProgram check(kQuilctlCommand + "screen show '" + path("fifo") + "'");
    for (int i = 0; i < 2500 && !check.hasEnded(); ++i) {
        check.signal(SIGTERM);
        usleep(2000);
    }
    EXPECT_EQ(check.end(), tools::kTerminated);
    EXPECT_TRUE(check.diedOfASignal());
}

// How a program ends that gets three signals, the first two one right behind the other. With a
// writer at the named pipe it reads, and never comes to an end of its own.
int endAfterThreeSignals(const std::string& fifo) {
    StartedProgram show(kQuilctlCommand + "screen show '" + fifo + "'");
    int writer = -1;
    while (writer < 0 && !show.hasEnded()) {
        writer = open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    }
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        show.signal(signal);
        while (show.hasPending(signal) && !show.hasEnded()) std::this_thread::yield();
    }
    const int end = show.end();
    close(writer);
    EXPECT_TRUE(show.diedOfASignal());
    return end;
}

// Whoever starts programs may signal one of them and then its group, as timeout(1) does.
TEST_F(QuilctlInterruption, EchoOfTheFirstOneIsNoSecondOne) {
    if (kEmulated) GTEST_SKIP() << "the emulator has pending signals of its own";
    ASSERT_EQ(mkfifo(path("fifo").c_str(), 0600), 0);
    constexpr int kTries = 20;  // a busy machine may need longer for the second than an echo takes
    int end = 0;
    for (int i = 0; i < kTries && end != tools::kHungUp; ++i) {
        end = endAfterThreeSignals(path("fifo"));
    }
    EXPECT_EQ(end, tools::kHungUp);
}

TEST_F(QuilctlInterruption, IgnoredSignalStaysIgnored) {
    StartedProgram get("sh -c 'trap \"\" HUP; kill -HUP $$; exec " + kQuilctlCommand + "get 1'");
    EXPECT_EQ(get.end(), tools::kOk);
    EXPECT_EQ(get.output(), "56 31 2E 30 2E 30\n");
}

TEST(QuilctlOutput, ReaderThatIsGoneIsAReasonAndNoDeath) {
    int ends[2] = {-1, -1};
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    close(ends[0]);
    StartedProgram get(kQuilctlCommand + "get 1", {.out = ends[1]});
    EXPECT_EQ(get.end(), tools::kNotWritten);
    EXPECT_EQ(get.output(), "quilctl: standard output cannot be written: Broken pipe\n");
    close(ends[1]);
}

}  // namespace
}  // namespace quil::tests
