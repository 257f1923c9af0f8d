#include "tools/quilctl/serve/served_board.h"

#include <mutex>

#include "tools/quilctl/session/board_session.h"
#include "tools/quilctl/session/bring_up_faults.h"

namespace quil::tools {
namespace {

using BoardLocked = std::lock_guard<Exclusive>;

thread_local const ServedBoard::Call* t_call = nullptr;

constexpr board::Nanos kTurn = std::chrono::seconds(1);  // of board time, then a command's

constexpr char kPowerOnRemedy[] = "quilctl power on switches it on again";

void requireNoEffect(const Options& options) {
    std::string idle;
    if ((options.given & kSeedOption) != 0) idle = "--seed";
    if ((options.given & kRealtimeOption) != 0)
        idle += idle.empty() ? "--realtime" : ", --realtime";
    if (!options.mcuInstalled.empty()) idle = "--installed";
    if (idle.empty()) return;
    throw Failure(kUsage, idle + ": no effect on a served board, which is powered already");
}

}  // namespace

ServedBoard::Calling::Calling(const Call& call) { t_call = &call; }
ServedBoard::Calling::~Calling() { t_call = nullptr; }
const ServedBoard::Call* ServedBoard::call() { return t_call; }

ServedBoard::ServedBoard(std::filesystem::path directory, Power power, OnEvent onEvent)
    : mDirectory(std::move(directory)), mPower(power), mOnEvent(std::move(onEvent)) {}

ServedBoard::~ServedBoard() { powerOff(); }

void ServedBoard::powerOn() {
    powerOff();
    const BoardLocked locked(mLock);
    board::BoardOptions how{.realtime = mPower.speed > 0, .seed = mPower.seed};
    how.speed = mPower.speed;
    how.keeping = board::Keeping::kDurable;
    how.standstill.tell = endAtStandstill;
    mBoard = std::make_unique<board::Board>(mDirectory, how);
    for (const board::Event& event : mBoard->trace().events()) mOnEvent(event);
    mBoard->trace().onEvent(mOnEvent);
    mStops.emplace([board = mBoard.get()] { board->cutPowerSoon("cut by an interruption"); });
    for (const std::string& name : mBroken) setBroken(*mBoard, name, true);
    if (mOnPower) mOnPower(*mBoard);
}

void ServedBoard::powerOff() {
    const BoardLocked locked(mLock);
    mStops.reset();
    mBoard.reset();
}

void ServedBoard::resetToFactory() {
    const auto product = board::productOf(mDirectory);
    if (!product) throw Failure(kNoBoard, mDirectory.string() + ": of no known product");
    powerOff();
    board::resetBoardDirectory(mDirectory, *product, board::Keeping::kDurable);
    powerOn();
}

board::Board& ServedBoard::lend(const Options& options) {
    requireNoEffect(options);
    if (!isPowered()) throw Failure(kNoBoard, "the board's power is cut", kPowerOnRemedy);
    mBoard->trace().clear();
    mBoard->clearLog();
    return *mBoard;
}

bool ServedBoard::goOn() {
    if (!isPowered()) return true;
    mBoard->trace().clear();  // no command asks for it
    return mPower.speed > 0 || mBoard->runUntilIdle(kTurn);
}

void ServedBoard::use(const std::function<void(board::Board&)>& act) {
    const BoardLocked locked(mLock);
    if (!mBoard) throw Failure(kNoBoard, "the board is off", kPowerOnRemedy);
    act(*mBoard);
}

bool ServedBoard::isPowered() {
    const BoardLocked locked(mLock);
    return mBoard && !mBoard->powerIsCut();
}

void ServedBoard::cutPower() {
    use([](board::Board& board) {
        board.cutPowerSoon("cut by a command");
        board.powerIsCut();  // now, also when no thread of the board's is at work
    });
}

void ServedBoard::breakPart(const std::string& name) {
    use([&](board::Board& board) {
        if (mBroken.insert(name).second) setBroken(board, name, true);
    });
}

void ServedBoard::mendPart(const std::string& name) {
    use([&](board::Board& board) {
        if (mBroken.erase(name) != 0) setBroken(board, name, false);
    });
}

std::set<std::string> ServedBoard::broken() {
    const BoardLocked locked(mLock);
    return mBroken;
}

void ServedBoard::setCommand(const std::string& words) {
    const BoardLocked locked(mLock);
    mCommand = words;
}

std::string ServedBoard::command() {
    const BoardLocked locked(mLock);
    return mCommand;
}

}  // namespace quil::tools
