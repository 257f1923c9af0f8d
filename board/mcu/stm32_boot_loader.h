// The USART boot loader of STM32 parts (AN3155), and of the GD32 parts, which answer it too and
// have the command 0x06 of their own. Where it differs from what is published: docs/models.md.
//
// It measures the line speed at the first byte after a reset, takes it for 0x7F, and keeps the
// speed until the next reset: after any other byte it speaks another speed than its host. AN3155
// says even parity; parts in the field are also used with odd parity and with none, so the model
// takes the parity that the host has at that moment. It measures 1,200 to 115,200 bit/s.
//
// While it sends an answer or the flash is at work, it does not read its receiver, which keeps one
// byte; what comes after that is lost.
//
// It refuses (0x1F): a code without its complement, a command that the part has not, a wrong XOR,
// an address outside its memory or in the RAM that it uses, a write that is on no word or no
// multiple of one, and under read-out protection whatever AN3155 says. What no healthy host sends
// is recorded as a violation as well.
#pragma once

#include <initializer_list>

#include "board/mcu/boot_loader.h"
#include "board/mcu/mcu_memory.h"

namespace quil::board {

class Stm32BootLoader : public BootLoader {
  public:
    Stm32BootLoader(McuFlash&, McuSurroundings&, LoaderFaults&);
    ~Stm32BootLoader() override;
    Stm32BootLoader(const Stm32BootLoader&) = delete;
    Stm32BootLoader& operator=(const Stm32BootLoader&) = delete;

    void start() override;
    void receive(uint8_t byte) override;
    LineSettings lineSettings() const override;

    using Handler = void (Stm32BootLoader::*)();
    struct CommandRow {
        uint8_t code;
        const char* name;
        bool refusedUnderReadoutProtection;
        Handler handler;
    };

  private:
    void synchronise(uint8_t byte);
    int measuredRate(uint8_t firstByte);
    void startAt(LineSettings);
    void expect(size_t bytes, Handler);
    void awaitCommand();
    bool passes(LoaderStep);       // false: a fault ends the command here
    bool acknowledge(LoaderStep);  // the same, and sends ACK
    void answer(std::vector<uint8_t>);
    void refuse(const std::string& why, bool violation = true);
    bool xorIsRight();
    bool takeAddress(std::initializer_list<McuMemory::Area> allowed);
    void receiveWhileBusy(uint8_t byte);
    void sendAndHearNothing(std::vector<uint8_t>);
    void hearAgain();

    void command();
    void get();
    void getVersion();
    void getId();
    void getPid();
    void readMemory();
    void readAddress();
    void readCount();
    void go();
    void goAddress();
    void writeMemory();
    void writeAddress();
    void writeCount();
    void writeData();
    void programFlash(uint32_t offset, std::vector<uint8_t> bytes);
    void erase();
    void eraseCount();
    void erasePages();
    void extendedErase();
    void extendedCount();
    void specialErase();
    void extendedPages();
    void erasePagesNow(std::vector<uint32_t> pages);
    void massErase();
    void writeOptions(std::function<Nanos(McuFlash&)> start);
    void writeProtect();
    void writeProtectCount();
    void writeProtectSectors();
    void writeUnprotect();
    void readoutProtect();
    void readoutUnprotect();
    void finished(const std::string& broken, bool resets);
    void operate(const std::string& what, std::function<Nanos(McuFlash&)> start, bool resets);

    static const CommandRow* rowOf(uint8_t code);

    McuFlash& mFlash;
    McuSurroundings& mAround;
    LoaderFaults& mFaults;
    const McuPart& mPart;
    McuMemory mMemory;
    bool mSynchronised = false, mBusy = false, mHung = false;
    std::optional<Nanos> mFirstByte;  // when a first byte came whose length is not known yet
    LineSettings mLine;
    uint8_t mCode = 0;  // of the command under way
    uint32_t mAddress = 0;
    std::vector<uint8_t> mIn;
    size_t mExpected = 0;
    Handler mNext = nullptr;
    std::optional<uint8_t> mHeardWhileBusy;
    PendingFault mFault;
};

}  // namespace quil::board
