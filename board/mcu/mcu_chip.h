// The microcontroller as a part on the board: reset and BOOT0, flash, and what runs on it.
//
// While NRST is low it is silent. When NRST rises, a high BOOT0 starts the boot loader in its ROM,
// and a low BOOT0 the application in its flash, if there is a valid image (mcu_image.h). Without
// one, and after a jump to any other address, the part stays silent.
#pragma once

#include <memory>

#include "board/devices/gpio_lines.h"
#include "board/mcu/boot_loader.h"
#include "board/mcu/mcu_application.h"
#include "board/mcu/mcu_image.h"

namespace quil::board {

class IniReader;

class McuChip : public UartPeer, private McuSurroundings {
  public:
    enum class State { kInReset, kStarting, kBootLoader, kApplication, kNoImage, kElsewhere };
    struct Start {
        Nanos at;
        State as;             // kBootLoader, kApplication, kNoImage
        std::string version;  // of the application
    };
    // From the rise of NRST to the first byte that the part can receive.
    static constexpr Nanos kStartTime = std::chrono::microseconds(500);

    // The board keeps the flash in the file "mcu/flash".
    McuChip(BoardServices&, const McuPart&, Uart&, GpioLines&, McuApplication&);
    ~McuChip() override;
    McuChip(const McuChip&) = delete;
    McuChip& operator=(const McuChip&) = delete;

    const McuPart& part() const { return mFlash.part(); }
    State state() const;
    std::string version() const;        // of the running application, else ""
    std::vector<Start> starts() const;  // recorded since power-on
    LoaderFaults& loaderFaults() { return mFaults; }
    McuFlash& flash() { return mFlash; }
    // How fast a line the boot loader measures; parts in the field go beyond what is published.
    void setFastestRate(int baud) { mFastestRate = baud; }
    // Puts an image into the flash at once, without the boot loader; takes effect at the next
    // start.
    void flashImage(std::string_view image);

    void powerOn();
    void powerLost();
    // A programming adapter at BOOT0 and NRST resets the part, and waits until it has started.
    void resetByAdapter(bool intoBootLoader);
    // Writes into the store what the part would keep if power went now.
    void leaveIn(Store&) const;

    void receive(uint8_t byte) override;
    LineSettings lineSettings() const override;

  private:
    Nanos now() const override;
    void after(Nanos delay, std::function<void()>) override;
    void send(std::vector<uint8_t>) override;
    LineSettings hostLine() const override;
    int fastestRate() const override { return mFastestRate; }
    void note(const std::string&) override;
    void violation(const std::string&) override;
    void operate(const std::string& what, std::function<Nanos(McuFlash&)> start,
                 std::function<void(const std::string&)> done) override;
    void resetBySoftware() override;
    void jumpTo(uint32_t address) override;

    void onReset(int level);
    void halt(State);
    void startFromReset();
    void startApplication();

    BoardServices& mBoard;
    Uart& mUart;
    GpioLine &mBoot0, &mNrst;
    McuApplication& mApplication;
    McuFlash mFlash;
    LoaderFaults mFaults;
    const std::unique_ptr<BootLoader> mLoader;
    State mState = State::kInReset;
    int mFastestRate = kPublishedFastest;
    std::string mVersion;
    std::vector<Start> mStarts;
    uint64_t mEpoch = 0;  // counts resets
};

const char* nameOf(McuChip::State);

// Where the product file stands in a board directory.
inline constexpr char kProductFile[] = "rootfs/vendor/etc/product.ini";
// The part that a product file names as mcu_serial; the GD32F303 if it names no known part.
const McuPart& partOfProductFile(const IniReader&, int handle);
const McuPart& partOfProductFile(const std::filesystem::path& productFile);
// What the MCU would find in its flash if the board in this directory were powered on.
McuImageCheck checkFlashedMcu(const std::filesystem::path& boardDirectory);

}  // namespace quil::board
