#include "board/fpga/network.h"

#include <filesystem>

namespace quil::board {
namespace {

constexpr char kModule[] = "dwmac_meson8b", kModuleFile[] = "dwmac-meson8b.ko";

}  // namespace

Network::Network(BoardServices& board, Phy& phy) : board_(board), phy_(phy) {}
Network::~Network() = default;

// Why the kernel does not load the file as a module; null if it does.
const char* Network::refusalOf(const std::string& modulePath) const {
    const auto host = board_.onHost(modulePath.c_str());
    std::error_code error;
    if (!host || !std::filesystem::is_regular_file(*host, error)) {
        return "No such file or directory";
    }
    if (host->filename() != kModuleFile || std::filesystem::file_size(*host, error) == 0) {
        return "Exec format error";
    }
    return nullptr;
}

void Network::powerOn() { setLoaded(true); }

void Network::setLoaded(bool loaded) {
    loaded_ = loaded;
    eth1_ = {};
    if (loaded) {
        ++loads_;
        phy_.driverLoaded();
    } else {
        phy_.driverUnloaded();
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
    board_.spendDeviceTime(kLoad, "insmod");
    if (const char* refusal = refusalOf(argv[1])) return failure(start + refusal);
    if (loaded_) return failure(start + "File exists");
    setLoaded(true);
    return {};
}

ProgramResult Network::rmmod(const Words& argv) {
    if (argv.size() != 2) return failure("usage: rmmod MODULE");
    board_.spendDeviceTime(kUnload, "rmmod");
    if (argv[1] != kModule || !loaded_) {
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
    if (!loaded_) return false;
    eth1_ = {address, netmask, true};
    return true;
}

bool Network::isDriverLoaded() const {
    Guard guard(boardLock());
    return loaded_;
}

Network::Interface Network::eth1() const {
    Guard guard(boardLock());
    return eth1_;
}

int Network::driverLoads() const {
    Guard guard(boardLock());
    return loads_;
}

}  // namespace quil::board
