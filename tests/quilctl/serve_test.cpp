// A board that stays powered between commands.
#include <gmock/gmock.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <fstream>
#include <thread>

#include "board/core/real_calls.h"
#include "testing/build.h"
#include "testing/heap_count.h"
#include "testing/program_output.h"
#include "testing/whole.h"
#include "tests/quilctl/served_run.h"
#include "tools/quilctl/session/board_session.h"
#include "tools/quilctl/session/exclusive.h"

namespace quil::tests {
namespace {

using testing::AllOf;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;
using testing::StartsWith;
using testing::ThrowsMessage;
using tools::Request;
using tools::ServerConnection;

class QuilctlServe : public ServedRun {};

// As the kernel shows it: R, S, ..
char stateOfTask(int task) {
    std::ifstream file("/proc/self/task/" + std::to_string(task) + "/stat");
    std::string stat;
    std::getline(file, stat);
    const size_t name = stat.rfind(") ");
    return name == std::string::npos ? ' ' : stat[name + 2];
}

TEST_F(QuilctlServe, CommandFindsTheBoardAsTheOneBeforeHasLeftIt) {
    serve();
    EXPECT_THAT(on({"fpga", "status"}).out, HasSubstr("PHY link           down"));
    EXPECT_EQ(on({"fpga", "load"}).code, tools::kOk);
    EXPECT_THAT(on({"fpga", "status"}).out, HasSubstr("PHY link           up"));
}

TEST_F(QuilctlServe, WhatIsSetIsKeptWhenTheServerHasEnded) {
    serve();
    EXPECT_EQ(on({"set", "0x102", "0A"}).code, tools::kOk);
    end();
    EXPECT_EQ(on({"get", "0x102"}).out, "0A\n");
}

// Only the first one says a time.
TEST_F(QuilctlServe, CommandSaysWhatItSaysOnABoardOfItsOwn) {
    const std::vector<tools::Words> commands = {
        {"--progress", "json", "fpga", "load", "--fault", "link"},
        {"get", "version"},
        {"--json", "get", "0x777"},
        {"--json", "config", "show"},
        {"self-test", "--break", "rtc"},
        {"--log-level", "I", "get", "0xFFFFFFF7"},
    };
    std::vector<Said> alone;
    alone.reserve(commands.size());
    for (const tools::Words& words : commands) alone.push_back(quilctl(words));
    serve();
    for (size_t i = 0; i < commands.size(); ++i) {
        SCOPED_TRACE(testing::PrintToString(commands[i]));
        const Said said = on(commands[i]);
        EXPECT_EQ(said.code, alone[i].code);
        EXPECT_EQ(said.err, alone[i].err);
        EXPECT_EQ(said.out, alone[i].out);
    }
}

// The lock is given back only when the board's thread sleeps for it.
TEST_F(QuilctlServe, ThreadOfTheBoardThatWaitsForTheServersLockTakesNoBoardTime) {
    tools::Exclusive lock;
    lock.lock();
    std::atomic<int> waiting{0};
    std::thread server([&] {
        while (waiting == 0 || stateOfTask(waiting) != 'S') std::this_thread::yield();
        lock.unlock();
    });
    board::Board powered(newBoard());
    powered.runFor(std::chrono::milliseconds(1));
    waiting = static_cast<int>(gettid());
    lock.lock();
    EXPECT_EQ(powered.now(), std::chrono::milliseconds(1));
    server.join();
}

TEST_F(QuilctlServe, TraceHasWhatItsOwnCommandDid) {
    serve();
    on({"fpga", "load"});
    const Said said = on({"--trace", "-", "get", "1"});
    EXPECT_THAT(said.out, AllOf(HasSubstr("request   client: get"), Not(HasSubstr("spi"))));
}

TEST_F(QuilctlServe, FilesAreThoseOfTheClientsFolder) {
    serve();
    const auto former = std::filesystem::current_path();
    std::filesystem::current_path(directory);
    EXPECT_EQ(on({"--trace", "here.txt", "get", "1"}).code, tools::kOk);
    std::filesystem::current_path(former);
    EXPECT_THAT(::quil::board::readWholeFile(directory / "here.txt").value_or(""),
                HasSubstr("client: get"));
}

TEST_F(QuilctlServe, CommandsLeaveNothingInTheServersMemory) {
    const BlockCount blocks = blockCount();
    if (blocks == nullptr) GTEST_SKIP() << "a sanitizer has the heap";
    serve();
    const auto runCommands = [this] {
        const std::vector<tools::Words> commands = {
            {"get", "1"}, {"fpga", "load"}, {"mcu", "update"}, {"boot"}, {"self-test"}};
        for (const tools::Words& words : commands) {
            for (int i = 0; i < 5; ++i) EXPECT_EQ(on(words).code, tools::kOk) << words.front();
        }
    };
    runCommands();
    const long before = blocks();
    runCommands();
    // The server tidies up behind its answers.
    for (int i = 0; i < 1000 && blocks() > before; ++i) on({"status"});
    EXPECT_LE(blocks(), before);
}

TEST_F(QuilctlServe, PowerThatWasCutComesBackWithPowerOn) {
    serve();
    on({"fpga", "load"});
    EXPECT_EQ(on({"power", "cut"}).out, "power off\n");
    const Said dead = on({"get", "1"});
    EXPECT_EQ(dead.code, tools::kNoBoard);
    EXPECT_EQ(dead.err,
              "quilctl: the board's power is cut\n"
              "quilctl: remedy: quilctl power on switches it on again\n");
    EXPECT_EQ(on({"power", "on"}).out, "power on\n");
    EXPECT_EQ(on({"power", "on"}).out, "the power is on already\n");
    EXPECT_EQ(on({"get", "1"}).code, tools::kOk);
    EXPECT_THAT(on({"fpga", "status"}).out, HasSubstr("PHY link           down"));
}

// Ten times as fast as the real board, which erases for half a minute: the cut comes in between.
TEST_F(QuilctlServe, PowerCutInTheMiddleOfAnUpdateEndsItAndTheNextOneMendsTheBoard) {
    constexpr int kSpeed = 10;
    serve(kSpeed);
    auto update = connection(), watching = connection();
    answersTo(watching, {.kind = Request::Kind::kWatch, .kinds = {"flash"}});
    update.send(run({"fpga", "flash", board + "/rootfs/vendor/firmware/fpga_Heron.bin"}));
    ASSERT_TRUE(watching.receive(""));  // the erase has begun
    cutPower();
    std::string said;
    auto one = update.receive("");
    for (; one && !one->contains("exit"); one = update.receive("")) said += one->value("err", "");
    ASSERT_TRUE(one);
    EXPECT_NE(one->value("exit", 0), tools::kOk);
    EXPECT_THAT(said, HasSubstr("the FPGA's flash is half done"));
    end();
    start();
    EXPECT_EQ(on({"boot", "--update-fpga"}).code, tools::kOk);
}

TEST_F(QuilctlServe, ResetMakesTheBoardAsItLeavesTheFactoryAndPowersIt) {
    board = newBoard();
    board::replaceWholeFile(board + "/parts", "rtc = faulty\n", false);
    board::replaceWholeFile(board + "/mcu/flash", "no image", false);
    board::replaceWholeFile(board + "/rootfs/own", "stays", false);
    start();
    EXPECT_EQ(on({"set", "0x102", "0A"}).code, tools::kFailed);
    EXPECT_EQ(on({"board", "reset"}).out, "the board is as it leaves the factory; power on\n");
    EXPECT_EQ(on({"get", "1"}).out, "56 31 2E 30 2E 30\n");
    EXPECT_EQ(on({"self-test"}).code, tools::kOk);
    EXPECT_EQ(board::readWholeFile(board + "/rootfs/own"), "stays");
    EXPECT_TRUE(board::formatOf(board).unfinished.empty());
}

TEST_F(QuilctlServe, BrokenPartStaysBrokenUntilItIsMended) {
    serve();
    EXPECT_EQ(on({"fault", "add", "link", "rtc"}).out, "broken: link rtc\n");
    EXPECT_EQ(on({"fpga", "load"}).code, tools::kFailed);
    EXPECT_EQ(on({"self-test"}).code, tools::kFailed);
    on({"power", "cut"});
    on({"power", "on"});
    EXPECT_EQ(on({"fpga", "load"}).code, tools::kFailed);
    EXPECT_EQ(on({"fault", "clear", "link"}).out, "broken: rtc\n");
    EXPECT_EQ(on({"fpga", "load"}).code, tools::kOk);
    EXPECT_EQ(on({"fault", "clear"}).out, "broken: none\n");
    EXPECT_EQ(on({"self-test"}).code, tools::kOk);
    EXPECT_EQ(on({"fault", "add", "lnik"}).code, tools::kUsage);
}

TEST_F(QuilctlServe, FaultOfOneCommandIsGoneWithIt) {
    serve();
    for (const std::string fault : {"link", "ddr", "spi"}) {
        EXPECT_EQ(on({"fpga", "load", "--fault", fault}).code, tools::kFailed) << fault;
        EXPECT_EQ(on({"fpga", "load"}).code, tools::kOk) << fault;
    }
    EXPECT_THAT(on({"fault", "list"}).out, "broken: none\n");
}

TEST_F(QuilctlServe, LogLevelIsThatOfOneCommand) {
    serve();
    EXPECT_THAT(on({"--log-level", "D", "get", "1"}).err, HasSubstr("D/"));
    EXPECT_THAT(on({"get", "1"}).err, IsEmpty());
}

TEST_F(QuilctlServe, StatusTellsOfTheBoard) {
    serve();
    on({"fpga", "load"});
    const auto status = resultOf(on({"--json", "status"}));
    EXPECT_EQ(status["power"], "on");
    EXPECT_EQ(status["link"], "up");
    EXPECT_EQ(status["mcu"]["version"], "V1.0.0");
    EXPECT_TRUE(status["fpga"]["configured"]);
    EXPECT_EQ(status["command"], "");
}

TEST_F(QuilctlServe, WhatNeedsABoardThatIsOffIsRefused) {
    serve();
    for (const tools::Words& words : {tools::Words{"board", "repair"}, tools::Words{"serve"}}) {
        const Said said = on(words);
        EXPECT_EQ(said.code, tools::kNoBoard);
        EXPECT_THAT(said.err, HasSubstr("needs a board that is switched off"));
    }
    EXPECT_EQ(on({"board", "check"}).code, tools::kOk);
    EXPECT_EQ(quilctl({"board", "show", board}).code, tools::kOk);
}

TEST_F(QuilctlServe, OptionsThatPowerABoardAreRefusedOnAPoweredOne) {
    serve();
    EXPECT_THAT(on({"--seed", "3", "--realtime", "get", "1"}).err,
                HasSubstr("--seed, --realtime: no effect on a served board"));
    EXPECT_THAT(on({"mcu", "update", "--installed", "V0.9.0"}).err, HasSubstr("--installed: no"));
    EXPECT_EQ(on({"--product", "Kestrel", "get", "1"}).code, tools::kUsage);
}

TEST_F(QuilctlServe, CommandsOfAServedBoardSayThatThereIsNone) {
    board = newBoard();
    const std::vector<tools::Words> commands = {
        {"power", "cut"}, {"power", "on"}, {"fault", "list"}, {"status"}, {"monitor"}};
    for (const tools::Words& words : commands) {
        EXPECT_THAT(on(words).err, StartsWith("quilctl: " + board + " is not served\n"));
        EXPECT_EQ(on(words).code, tools::kNoBoard);
        EXPECT_EQ(quilctl(words).code, tools::kUsage);
    }
}

TEST_F(QuilctlServe, SocketIsForItsUserAlone) {
    serve();
    struct stat info {};
    ASSERT_EQ(stat((board + "/socket").c_str(), &info), 0);
    EXPECT_EQ(info.st_mode, S_IFSOCK | 0600U);
    end();
    EXPECT_FALSE(std::filesystem::exists(board + "/socket"));
}

TEST_F(QuilctlServe, SocketThatAKilledServerHasLeftIsNoObstacle) {
    board = newBoard();
    { const tools::Descriptor left = tools::listenIn(board); }
    EXPECT_EQ(on({"get", "1"}).code, tools::kOk);
    EXPECT_EQ(on({"board", "check"}).code, tools::kOk);
    start();
    EXPECT_EQ(on({"status"}).code, tools::kOk);
}

TEST_F(QuilctlServe, FileInThePlaceOfTheSocketIsLeftAlone) {
    board = newBoard();
    ::quil::board::writeWholeFile(board + "/socket", "mine");
    EXPECT_THROW(tools::listenIn(board), tools::Failure);
    EXPECT_EQ(::quil::board::readWholeFile(board + "/socket"), "mine");
}

TEST_F(QuilctlServe, DirectoryWithALongNameCanBeServed) {
    const auto folder = directory / std::string(200, 'l');
    std::filesystem::create_directory(folder);
    board = (folder / "board").string();
    ASSERT_EQ(quilctl({"board", "new", board}).code, tools::kOk);
    start();
    EXPECT_EQ(on({"status"}).code, tools::kOk);
}

TEST_F(QuilctlServe, RequestsOfManyClientsAreAllAnswered) {
    serve();
    // Each is written and read back.
    const int clientsMost = isWhole() ? 10 : 3, rounds = isWhole() ? 500 : 4;
    std::atomic<int> right{0};
    std::vector<std::thread> clients;
    clients.reserve(static_cast<size_t>(clientsMost));
    for (int client = 0; client < clientsMost; ++client) {
        clients.emplace_back([&, client] {
            auto server = connection();
            const std::string command = std::to_string(0x200 + client);
            for (int i = 0; i < rounds; ++i) {
                const std::string value = std::to_string(10 + i % 90);
                answersTo(server, run({"set", command, value}));
                const auto said = answersTo(server, run({"get", command}));
                const bool isRight = said.size() == 2 && said[0].value("out", "") == value + "\n" &&
                                     said[1].value("exit", 1) == 0;
                right += isRight ? 1 : 0;
            }
        });
    }
    for (std::thread& client : clients) client.join();
    EXPECT_EQ(right, clientsMost * rounds);
}

TEST_F(QuilctlServe, ClientThatGoesAwayHoldsNobodyUp) {
    serve();
    {
        auto gone = connection();
        gone.send(run({"fpga", "load"}));
        auto queued = connection();
        queued.send(run({"set", "0x102", "0B"}));
    }
    auto server = connection();
    EXPECT_EQ(answersTo(server, run({"get", "version"})).back().value("exit", 1), tools::kOk);
}

TEST_F(QuilctlServe, MonitorThatDoesNotReadLosesEventsAndIsToldHowMany) {
    tools::Server server(tools::listenIn(directory), "board", nullptr);
    auto watching = *ServerConnection::to(directory);
    answersTo(watching, {.kind = Request::Kind::kWatch});
    ::quil::board::Event event{{}, ::quil::board::EventKind::kSpi, "spi", "write", {}};
    event.text.resize(400000, 'x');
    const auto limit = 2 * tools::Server::kEventsMost / event.text.size();
    for (size_t i = 0; i < limit; ++i) server.tell(event);
    uint64_t seen = 0, lost = 0;
    while (seen + lost < limit) {
        const auto one = watching.receive("");
        ASSERT_TRUE(one);
        seen += one->contains("event") ? 1 : 0;
        lost += one->value("lost", 0);
        // What was read makes room, and the next event tells of the loss.
        if (lost == 0) server.tell(event);
    }
    EXPECT_GT(seen, 0U);
    EXPECT_GT(lost, 0U);
}

TEST_F(QuilctlServe, ManyClientsSeeEveryEventAlsoThoseThatReadLate) {
    const size_t clients = isWhole() ? tools::Server::kClientsMost : 8;
    const uint64_t rounds = isWhole() ? 100 : 2;
    constexpr uint64_t kAtOnce = 100;
    tools::Server server(tools::listenIn(directory), "board", nullptr);
    std::vector<ServerConnection> watching;
    for (size_t i = 0; i < clients; ++i) {
        watching.push_back(*ServerConnection::to(directory));
        answersTo(watching.back(), {.kind = Request::Kind::kWatch});
    }
    const ::quil::board::Event event{{}, ::quil::board::EventKind::kSpi, "spi", "write", {1, 2}};
    const auto read = [](ServerConnection& client, uint64_t count) {
        for (uint64_t i = 0; i < count; ++i) {
            const auto one = client.receive("");
            ASSERT_TRUE(one && one->contains("event")) << (one ? one->dump() : "the end");
        }
    };
    for (uint64_t round = 0; round < rounds; ++round) {
        for (uint64_t i = 0; i < kAtOnce; ++i) server.tell(event);
        read(watching.front(), kAtOnce);
    }
    for (size_t i = 1; i < clients; ++i) read(watching[i], rounds * kAtOnce);
}

TEST_F(QuilctlServe, WhoWatchesFromNowOnSeesNothingOfBefore) {
    tools::Server server(tools::listenIn(directory), "board", nullptr);
    auto early = *ServerConnection::to(directory), late = *ServerConnection::to(directory);
    answersTo(early, {.kind = Request::Kind::kWatch});
    ::quil::board::Event event{{}, ::quil::board::EventKind::kSpi, "spi", "before", {}};
    for (int i = 0; i < 5000; ++i) server.tell(event);
    answersTo(late, {.kind = Request::Kind::kWatch});
    event.text = "after";
    server.tell(event);
    const auto first = late.receive("");
    ASSERT_TRUE(first);
    EXPECT_EQ(first->at("event").at("text"), "after");
}

// What monitor says while another client asks the MCU for its version.
class QuilctlMonitor : public QuilctlServe {
  protected:
    Said monitored(const tools::Words& words) {
        serve();
        Watched err;
        auto asker = std::thread([&] {
            err.isWatched.wait(false);
            auto server = connection();
            answersTo(server, run({"get", "version"}));
        });
        std::vector<const char*> argv = {"quilctl", "--board", board.c_str()};
        for (const std::string& word : words) argv.push_back(word.c_str());
        std::ostream errors(&err);
        std::istringstream in;
        std::ostringstream out;
        const int code = tools::run(tools::kBoardProgram, static_cast<int>(argv.size()),
                                    argv.data(), {in, out, errors});
        asker.join();
        return {code, out.str(), err.str()};
    }

  private:
    struct Watched : std::stringbuf {
        int sync() override {
            isWatched = true;
            isWatched.notify_one();
            return 0;
        }
        std::atomic<bool> isWatched{false};
    };
};

TEST_F(QuilctlMonitor, PrintsEventsAsTheyCome) {
    const Said said = monitored({"monitor", "--filter", "frame", "--count", "2"});
    EXPECT_EQ(said.code, tools::kOk);
    EXPECT_THAT(said.out, AllOf(HasSubstr("mcu: request label=1 cmd=0x00000001 get"),
                                HasSubstr("mcu: answer label=1 cmd=0x00000001 get payload=6")));
}

TEST_F(QuilctlMonitor, EventAsJsonHasItsTimeInSecondsAndItsBytesAsNumbers) {
    const Said said = monitored({"--json", "monitor", "--filter", "request", "--count", "1"});
    const auto event = nlohmann::json::parse(said.out)["result"]["events"][0];
    EXPECT_EQ(event["kind"], "request");
    EXPECT_TRUE(event["at"].is_number_float());
    EXPECT_LT(event["at"], 100);
    EXPECT_EQ(event["bytes"], nlohmann::json({1, 0, 0, 0, 0, 0, 0, 0}));
}

TEST_F(QuilctlServe, MonitorRefusesUnknownKindsAndADocumentWithoutAnEnd) {
    serve();
    EXPECT_THAT(on({"monitor", "--filter", "frmae"}).err, HasSubstr("there is no kind 'frmae'"));
    EXPECT_THAT(on({"--json", "monitor"}).err, HasSubstr("say how long with --count"));
}

auto refusal(const std::string& why) {
    return ThrowsMessage<tools::Failure>(StartsWith("the board's server: " + why));
}

// What a hostile client writes, and how the server sends it away.
TEST_F(QuilctlServe, HostileRequestsAreAnsweredWithAnErrorAndTheBoardGoesOn) {
    serve();
    const std::string deep(100000, '[');
    const std::string lines[] = {
        "nonsense\n",
        "{}\n",
        "[1]\n",
        "{\"version\":1,\"run\":[]}\n",
        "{\"version\":\"2\"}\n",
        "{\"version\":2,\"run\":{}}\n",
        "{\"version\":2,\"run\":[[300]],\"folder\":\"/\",\"board\":\"\"}\n",
        "{\"version\":2,\"watch\":[1]}\n",
        "{\"version\":2,\"watch\":7}\n",
        std::string("\0\n", 2),
        "\xff\xfe\n",
        deep + "\n",
        std::string(tools::kLongestRequest + 70000, 'x'),
    };
    for (const std::string& line : lines) {
        SCOPED_TRACE(line.substr(0, 60));
        auto server = connection();
        server.sendBytes(line);
        EXPECT_THAT([&] { server.receive(""); }, refusal(""));
        EXPECT_FALSE(server.receive(""));
    }
    EXPECT_EQ(on({"get", "1"}).code, tools::kOk);
}

TEST_F(QuilctlServe, CommandThatHasToWaitDoesNotPassForOneThatNeedNot) {
    serve();
    auto server = connection();
    Request request = run({"get", "1"});
    request.atOnce = true;
    const auto said = answersTo(server, request);
    EXPECT_EQ(said.back().value("exit", 0), tools::kUsage);
}

TEST_F(QuilctlServe, CommandThatHasNoBusinessOnAServedBoardIsRefusedThereToo) {
    serve();
    auto server = connection();
    for (const tools::Words& words :
         {tools::Words{"serve"}, {"board", "repair"}, {"monitor"}, {"commands", "list"}}) {
        const auto said = answersTo(server, run(words));
        EXPECT_THAT(said.front().value("err", ""), HasSubstr("does not run on a served board"));
    }
}

TEST_F(QuilctlServe, ClientsBeyondTheMostAreTurnedAwayAndToldWhy) {
    serve();
    std::vector<ServerConnection> clients;
    for (size_t i = 0; i < tools::Server::kClientsMost; ++i) clients.push_back(connection());
    auto late = connection();
    EXPECT_THAT([&] { late.receive(""); }, refusal("it has 100 clients already"));
    const tools::Words commands[] = {{"get", "1"}, {"monitor"}, {"page"}};
    for (const tools::Words& words : commands) {
        const Said said = on(words);
        EXPECT_EQ(said.code, tools::kNoBoard);
        EXPECT_THAT(said.err, HasSubstr("the board's server: it has 100 clients already"));
    }
    clients.clear();
}

TEST_F(QuilctlServe, BytesThatAreNoTextArriveAsTheyAre) {
    const std::string bytes = {'a', '\xff', '\0', 'z'};
    EXPECT_EQ(tools::bytesIn(tools::jsonOfBytes(bytes)), bytes);
    EXPECT_TRUE(tools::jsonOfBytes(bytes).is_array());
    EXPECT_TRUE(tools::jsonOfBytes("plain").is_string());
}

// The program itself: a served board outlives its clients, and a killed server leaves the board to
// the next.
TEST_F(QuilctlServe, ProgramServesUntilItIsKilledAndTheBoardIsFreeThen) {
    board = newBoard();
    const std::string quil =
        QUIL_EMULATOR " '" QUIL_BIN_DIR "/quilctl' --quiet --board '" + board + "' ";
    const std::string script =
        quil + "serve > '" + board + ".said' & server=$!; tries=0; until " + quil +
        "status > /dev/null 2>&1 || [ $((tries += 1)) -gt 999 ]; do :; " + "done; " + quil +
        "get version; kill -9 $server; wait; " + quil + "get version; " + quil + "status; echo $?";
    EXPECT_EQ(outputOf("(" + script + ") 2>&1"),
              "56 31 2E 30 2E 30\n56 31 2E 30 2E 30\nquilctl: " + board +
                  " is not served\nquilctl: remedy: quilctl --board " + board +
                  " serve keeps its board powered\n4\n");
}

}  // namespace
}  // namespace quil::tests
