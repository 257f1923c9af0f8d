#include "board/fpga/network.h"

#include <filesystem>

namespace quil::board {
namespace {

constexpr char kModule[] = "dwmac_meson8b", kModuleFile[] = "dwmac-meson8b.ko";

}  // namespace

Network::Network(BoardServices& board, Phy& phy) : mBoard(board), mPhy(phy) {}
Network::~Network() = default;

// Why the kernel does not load the file as a module; null if it does.
const char* Network::refusalOf(const std::string& modulePath) const {
    std::string content;
    if (!BoardServices::isBoards(modulePath.c_str()) ||
        mBoard.readFile(modulePath, &content) != 0) {
        return "No such file or directory";
    }
    if (std::filesystem::path(modulePath).filename() != kModuleFile || content.empty()) {
        return "Exec format error";
    }
    return nullptr;
}

void Network::powerOn() { setLoaded(true); }

void Network::setLoaded(bool loaded) {
    mLoaded = loaded;
    mEth1 = {};
    if (loaded) {
        ++mLoads;
        mPhy.driverLoaded();
    } else {
        mPhy.driverUnloaded();
    }
}

void Network::addCommands(Shell& shell) {
    shell.add("insmod", [this](const Words& argv) { return insmod(argv); });
    shell.add("rmmod", [this](const Words& argv) { return rmmod(argv); });
    shell.add("ifconfig", [this](const Words& argv) { return ifconfig(argv); });
}

ProgramResult Network::insmod(const Words& argv) {
    if (argv.size() != 2) return failure("usage: insmod MODULE");
    const std::string start = "insmod: failed to load " + argv[1] + ": ";
    mBoard.spendDeviceTime(kLoad, "insmod");
    if (const char* refusal = refusalOf(argv[1])) return failure(start + refusal);
    if (mLoaded) return failure(start + "File exists");
    setLoaded(true);
    return {};
}

ProgramResult Network::rmmod(const Words& argv) {
    if (argv.size() != 2) return failure("usage: rmmod MODULE");
    mBoard.spendDeviceTime(kUnload, "rmmod");
    if (argv[1] != kModule || !mLoaded) {
        return failure("rmmod: failed to unload " + argv[1] + ": No such file or directory");
    }
    setLoaded(false);
    return {};
}

ProgramResult Network::ifconfig(const Words& argv) {
    const bool understood =
        argv.size() == 6 && argv[1] == "eth1" && argv[3] == "netmask" && argv[5] == "up";
    if (!understood) return failure("ifconfig: bad arguments");
    if (!configure(argv[2], argv[4])) return failure("ifconfig: ioctl 8916: No such device");
    return {};
}

bool Network::configure(const std::string& address, const std::string& netmask) {
    if (!mLoaded) return false;
    mEth1 = {address, netmask, true};
    return true;
}

bool Network::isDriverLoaded() const {
    Guard guard(boardLock());
    return mLoaded;
}

Network::Interface Network::eth1() const {
    Guard guard(boardLock());
    return mEth1;
}

int Network::driverLoads() const {
    Guard guard(boardLock());
    return mLoads;
}

}  // namespace quil::board
