// The host's second Ethernet interface: the kernel's driver module and eth1's settings, and the
// commands that change them.
//
//   rmmod dwmac_meson8b
//   insmod /vendor_dlkm/lib/modules/dwmac-meson8b.ko
//   ifconfig eth1 ADDRESS netmask MASK up
//
// The module's file stands in the board's file system; an empty file cannot be loaded.
#pragma once

#include <string>
#include <vector>

#include "board/devices/shell.h"
#include "board/fpga/phy.h"

namespace quil::board {

class Network {
  public:
    static constexpr Nanos kUnload = std::chrono::milliseconds(30);
    static constexpr Nanos kLoad = std::chrono::milliseconds(80);

    struct Interface {
        std::string address, netmask;
        bool up = false;
    };

    Network(BoardServices&, Phy&);
    ~Network();
    Network(const Network&) = delete;
    Network& operator=(const Network&) = delete;

    bool isDriverLoaded() const;
    Interface eth1() const;  // all empty after the driver is loaded
    int driverLoads() const;

    // For the board's other parts.
    void powerOn();
    void addCommands(Shell&);
    bool configure(const std::string& address, const std::string& netmask);

  private:
    using Words = std::vector<std::string>;
    ProgramResult insmod(const Words&);
    ProgramResult rmmod(const Words&);
    ProgramResult ifconfig(const Words&);
    void setLoaded(bool);

    const char* refusalOf(const std::string& modulePath) const;

    BoardServices& mBoard;
    Phy& mPhy;
    bool mLoaded = false;
    int mLoads = 0;
    Interface mEth1;
};

}  // namespace quil::board
