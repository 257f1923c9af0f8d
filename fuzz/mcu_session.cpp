// A programming session or an update with an MCU that answers anything. Input, one byte each: the
// session, the image, the circumstances, what follows the script, a fault (call and error, calls
// before it, times); then the script: for each write of the host, a byte that selects the answer.
#include <stdio.h>
#include <unistd.h>

#include <array>
#include <iterator>

#include "fuzz/check.h"
#include "fuzz/drawn_fault.h"
#include "fuzz/input.h"
#include "fuzz/powered_board.h"
#include "fuzz/targets.h"
#include "isp/isp_tasks.h"
#include "isp/mcu_update.h"
#include "isp/n32_upgrade.h"
#include "isp/serial_port.h"
#include "mculink/uart.h"
#include "testing/bytes.h"
#include "testing/isp_session.h"

namespace quil::fuzz {
namespace {

using board::Call;
using std::chrono::milliseconds;
using std::chrono::seconds;
using tests::Bytes;

constexpr char kImage[] = "/vendor/firmware/mcu_Heron.bin";

const Bytes kN32Good = {0xAA, 0x55, 0x01, 0x00, 0x00, 0x00, 0xA0, 0x00, 0x5E};

Bytes n32Info() {
    Bytes answer(60);
    answer[0] = 0xAA;
    answer[1] = 0x55;
    answer[57] = 0xA0;
    answer[59] = tests::xorOf(answer);
    return answer;
}

// Answers when a write of the host has arrived whole.
class HostilePeer final : public board::UartPeer {
  public:
    enum class After : uint8_t { kSilence, kAcknowledge, kAgain, kEcho };

    HostilePeer(board::Board& board, After after, std::span<const uint8_t> script)
        : mBoard(board), mAfter(after), mWhole(script), mScript(script) {
        mBoard.mcuUart().attach(this);
    }
    ~HostilePeer() override { mBoard.mcuUart().attach(nullptr); }

    // Always the port's own settings, so that no byte is garbled.
    board::LineSettings lineSettings() const override { return mBoard.mcuUart().hostLine(); }
    void receive(uint8_t byte) override {
        if (mBoard.mcuUart().bytesOnTheWay() == 0) answerTo(byte);
    }

  private:
    // Bits 0 to 3: how many bytes of the script to send. Bits 4 and 5: what to send before them.
    // Bits 6 and 7: the delay.
    void answerTo(uint8_t byte) {
        if (mScript.empty() && mAfter == After::kAgain) mScript = Input(mWhole);
        if (mScript.empty()) return answerAfterTheScript(byte);
        const uint8_t what = mScript.byte();
        Bytes answer = startOf((what >> 4) & 3);
        const auto more = mScript.take(what & 0x0F);
        answer.insert(answer.end(), more.begin(), more.end());
        constexpr std::array<milliseconds, 4> kDelays = {milliseconds(0), milliseconds(150),
                                                         milliseconds(700), milliseconds(2900)};
        send(answer, kDelays.at(what >> 6));
    }

    void answerAfterTheScript(uint8_t byte) {
        if (mAfter == After::kAcknowledge) send({0x79}, {});
        if (mAfter == After::kEcho) send({byte}, {});
    }

    static Bytes startOf(int which) {
        if (which == 1) return {0x79};
        if (which == 2) return kN32Good;
        if (which == 3) return n32Info();
        return {};
    }

    void send(const Bytes& answer, milliseconds delay) {
        if (answer.empty()) return;
        mBoard.after(delay, [this, answer] { mBoard.mcuUart().sendToHost(answer); });
    }

    board::Board& mBoard;
    const After mAfter;
    const std::span<const uint8_t> mWhole;
    Input mScript;
};

int production() { return mcu_tool_isp_task(kImage, kUart); }
int n32Upgrade() { return n32_uart_isp_upgrade(kImage, kUart); }
template <unsigned kCommand>
int diagnostic() {
    return task(kCommand, kImage, kUart);
}
int update() {
    const int32_t former = serialInit();
    int32_t link = former;
    const int result = mcuFwUpdate(&link);
    if (link != former && link >= 0) close(link);
    if (former >= 0) close(former);
    return result;
}
int n32Update() {
    snprintf(config_info->mcu_serial, sizeof(config_info->mcu_serial), "n32g45x");
    return doMcuUpdateByIsp();
}

struct Session {
    int (*run)();
    std::array<int, 3> results;  // the allowed ones
    seconds most;                // limit of board time
};
// The limits of time: each of the image's 12 blocks has up to four answers, and each may take the
// 10 s for which a read of a port that may not wait fails. The answers of an N32 come byte by byte,
// up to 3 s each. An update is five sessions.
constexpr seconds kSessionMost(500);
constexpr Session kSessions[] = {
    {production, {0, 15, 15}, kSessionMost},      {n32Upgrade, {0, -1, 255}, seconds(900)},
    {update, {0, -1, -1}, 5 * kSessionMost},      {n32Update, {0, -1, -1}, seconds(4500)},
    {diagnostic<0x00>, {0, 3, 15}, kSessionMost}, {diagnostic<0x11>, {0, 3, 15}, kSessionMost},
    {diagnostic<0x31>, {0, 3, 15}, kSessionMost}, {diagnostic<0x43>, {0, 3, 15}, kSessionMost},
    {diagnostic<0x44>, {0, 3, 15}, kSessionMost}, {diagnostic<0x73>, {0, 3, 15}, kSessionMost},
    {diagnostic<0x92>, {0, 3, 15}, kSessionMost},
};
constexpr std::array<size_t, 8> kImageSizes = {0, 1, 127, 128, 256, 1000, 1024, 3000};

// Writes an image of one of the sizes, or removes it.
void putImage(board::Board& board, uint8_t which) {
    if ((which & 0x0F) == 0x0F) {
        remove(kImage);
        return;
    }
    board.writeFile(kImage, std::string(kImageSizes[which % kImageSizes.size()], '\x5A'));
}

// A session that has driven the lines ends with the MCU reset into its application.
void checkMcuIsLeftInItsApplication(board::Board& board) {
    const auto commands = board.trace().events(board::EventKind::kShell);
    if (commands.empty()) return;
    check(commands.size() >= 3, "lines left in the middle");
    const auto* last = &commands[commands.size() - 3];
    check(last[0].text == tests::kBoot0Low && last[1].text == tests::kResetLow &&
              last[2].text == tests::kResetHigh,
          "the MCU is not reset into its application");
}

}  // namespace

void mcuSession(std::span<const uint8_t> bytes) {
    Input input(bytes);
    const Session& session = kSessions[input.byte() % std::size(kSessions)];
    PoweredBoard board;
    putImage(*board, input.byte());
    const uint8_t circumstances = input.byte();
    if ((circumstances & 1) != 0) board.logEverything();
    check(parseConfigInfo() == 0, "the product file");
    const auto after = static_cast<HostilePeer::After>(input.byte() & 3);
    const auto failing = addFault(*board, input);
    const HostilePeer peer(*board, after, input.rest());

    const auto start = board->now();
    const int result = session.run();
    check(std::count(session.results.begin(), session.results.end(), result) > 0, "another result");
    check(board->now() - start <= session.most, "it takes too long");
    checkMcuIsLeftInItsApplication(*board);
    // A link whose fcntl fails stays open, deliberately, and may have the number that the port had.
    check(failing == Call::kFcntl || !board->isOpen(fd), "the port is left open");
}

}  // namespace quil::fuzz
