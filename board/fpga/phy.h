// The Ethernet PHY between the host's eth1 and the FPGA: a reset line, registers in pages, and a
// link that comes up once the PHY is set up.
//
// The host reaches it through two files that exist while the Ethernet driver is loaded:
// "/sys/class/ethernet/phyreg" takes "w REGISTER VALUE" and "r REGISTER" and shows the last value
// read; "/sys/class/ethernet/quilphyreg" shows the link's status, which contains "0x907" when the
// link is up.
//
// Faults: Call::kOpen, kRead and kWrite by the files' paths.
#pragma once

#include <stdint.h>

#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>

#include "board/core/services.h"
#include "board/devices/gpio_lines.h"
#include "board/devices/sysfs.h"

namespace quil::board {

inline constexpr char kPhyResetLine[] = "RTL8211FS_RSTN";
inline constexpr char kPhyRegisters[] = "/sys/class/ethernet/phyreg";
inline constexpr char kPhyStatus[] = "/sys/class/ethernet/quilphyreg";

class Phy {
  public:
    // From the release of the reset to the first permitted access; from the set-up to the link.
    static constexpr Nanos kStartUp = std::chrono::milliseconds(150);
    static constexpr Nanos kLinkTraining = std::chrono::milliseconds(20);
    // The register that sets the port up, its page, and the value that the board needs.
    static constexpr uint16_t kPageRegister = 0x1f, kSetUpPage = 0xd08, kSetUpRegister = 0x10,
                              kSetUp = 0x5e;

    Phy(BoardServices&, GpioLine& resetLine, Sysfs&);
    ~Phy();
    Phy(const Phy&) = delete;
    Phy& operator=(const Phy&) = delete;

    // For tests.
    void setCable(bool plugged);
    void setDeadResets(int count);  // the link stays down after each of so many resets; -1: always
    void setStatusText(std::string text);  // the fixed text of the status file; empty: the true one
    bool isLinkUp() const;
    uint16_t registerAt(uint16_t page, uint8_t number) const;
    int resets() const;  // releases of the reset line

    // For the board's other parts: the driver's files exist while it is loaded.
    void driverLoaded();
    void driverUnloaded();
    void onReset(std::function<void()> listener) { mOnReset = std::move(listener); }

  private:
    void resetLineChanged(int level);
    int store(std::string_view text);
    int writeRegister(uint32_t number, uint32_t value);
    bool mayBeAccessed() const;
    std::string statusText() const;

    void violation(const std::string& text) { mBoard.violation("phy", text); }
    Nanos now() const { return mBoard.scheduler.now(); }

    BoardServices& mBoard;
    GpioLine& mResetLine;
    Sysfs& mSysfs;
    std::function<void()> mOnReset;
    bool mCable = true, mDriver = false;
    int mDeadResets = 0, mResets = 0;
    std::string mFixedText;
    Nanos mStartsAt{0};
    std::optional<Nanos> mSetUpAt;
    uint16_t mPage = 0, mLastRegister = 0, mLastValue = 0;
    std::map<uint32_t, uint16_t> mRegisters;  // page << 8 | number
};

}  // namespace quil::board
