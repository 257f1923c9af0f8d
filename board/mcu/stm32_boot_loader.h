// The USART boot loader of STM32 parts (AN3155), and of the GD32 parts, which answer it too and
// have the command 0x06 of their own.
//
// It measures the line speed at the first 0x7F and keeps it until the next reset. AN3155 says even
// parity; parts in the field are also used with odd parity and with none, so the model takes the
// parity that the host has at that moment. It answers between 1,200 and 115,200 bit/s only.
//
// It refuses (0x1F): a code without its complement, a command that the part has not, a wrong XOR,
// an address outside flash and RAM or not on a word, a length that is not a multiple of what the
// part writes or reaches past the memory, page numbers that the part has not, and under read-out
// protection whatever AN3155 says. What no healthy host sends is recorded as a violation as well.
#pragma once

#include "board/mcu/boot_loader.h"

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
    void expect(size_t bytes, Handler);
    void awaitCommand();
    bool passes(LoaderStep);       // false: a fault ends the command here
    bool acknowledge(LoaderStep);  // the same, and sends ACK
    void answer(std::vector<uint8_t>);
    void refuse(const std::string& why, bool violation = true);
    bool xorIsRight();
    bool takeAddress();
    void receiveWhileBusy(uint8_t byte);
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
    void programFlash(uint32_t offset);
    void erase();
    void eraseCount();
    void erasePages();
    void extendedErase();
    void extendedCount();
    void specialErase();
    void extendedPages();
    void erasePagesNow(std::vector<uint32_t> pages);
    void massErase();
    void writeProtect();
    void writeProtectCount();
    void writeProtectSectors();
    void writeUnprotect();
    void readoutProtect();
    void readoutUnprotect();
    void finished(const std::string& broken, bool resets);
    void operate(const std::string& what, std::function<Nanos(McuFlash&)> start, bool resets);
    bool inFlash(uint32_t address, size_t size) const;
    bool inRam(uint32_t address, size_t size) const;

    static const CommandRow* rowOf(uint8_t code);

    McuFlash& mFlash;
    McuSurroundings& mAround;
    LoaderFaults& mFaults;
    const McuPart& mPart;
    bool mSynchronised = false, mBusy = false, mHung = false;
    LineSettings mLine;
    uint8_t mCode = 0;  // of the command under way
    uint32_t mAddress = 0;
    std::vector<uint8_t> mIn, mRam;
    size_t mExpected = 0;
    Handler mNext = nullptr;
    std::optional<uint8_t> mHeardWhileBusy;
    PendingFault mFault;
};

}  // namespace quil::board
