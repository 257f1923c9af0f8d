// The UART boot loader of the N32G45x: 9,600 bit/s, 8N1.
//
// A request is 0xAA 0x55, command, 0, payload length (2), parameter (4), payload, XOR of all
// before. An answer is 0xAA 0x55, command, 0, payload length (2), payload, status (2), XOR of all
// before. All numbers are little-endian but for the handshake's line speed.
//
//   0x01 handshake       parameter: the line's speed, big-endian
//   0x10 get info        answers 51 bytes
//   0x30 flash erase     parameter: first page (2), pages (2); payload: 16 zero bytes
//   0x31 flash download  parameter: address
//                        payload: 16 zero bytes, data (a multiple of 16, at most 128), its CRC
//   0x32 CRC check       parameter: the CRC of all data since the handshake
//                        payload: 16 zero bytes, address, length
//
// A download is answered no sooner than 60 ms after the request: hosts flush their input for a
// while after sending, and expect the answer later. A CRC check succeeds when the flash at that
// address has that CRC.
//
// The CRC is that of STM32-class CRC units: polynomial 0x04C11DB7, initial value 0xFFFFFFFF, over
// 32-bit words. Status 0xA0 0x00 is success; 0xB0 and a reason (N32Refusal) is not. What no healthy
// host sends is recorded as a violation as well.
#pragma once

#include "board/mcu/boot_loader.h"

namespace quil::board {

enum class N32Refusal : uint8_t {
    kCheckByte = 1,
    kCommand,
    kParameter,
    kLength,
    kBlockCrc,
    kFlash,
    kFlashCrc,
    kFault,
};

class N32BootLoader : public BootLoader {
  public:
    static constexpr Nanos kTurnaround = std::chrono::milliseconds(2);
    static constexpr Nanos kDownloadTurnaround = std::chrono::milliseconds(60);
    static constexpr Nanos kLongestGap = std::chrono::milliseconds(100);  // inside one request

    N32BootLoader(McuFlash&, McuSurroundings&, LoaderFaults&);
    ~N32BootLoader() override;
    N32BootLoader(const N32BootLoader&) = delete;
    N32BootLoader& operator=(const N32BootLoader&) = delete;

    void start() override;
    void receive(uint8_t byte) override;
    LineSettings lineSettings() const override;

  private:
    using Handler = void (N32BootLoader::*)();
    struct CommandRow {
        uint8_t code;
        size_t leastPayload, mostPayload;
        Handler handler;
    };

    void startOver(const std::string& why);
    void frame();
    bool passes(LoaderStep);
    void endWith(const LoaderFault&);
    void operate(const std::string& what, std::function<Nanos(McuFlash&)> start, Nanos turnaround);
    void handshake();
    void getInfo();
    void erase();
    void download();
    void checkCrc();
    void succeed(Nanos delay, std::vector<uint8_t> payload = {});
    void refuse(N32Refusal, const std::string& why, bool violation = true);
    void answer(Nanos delay, std::vector<uint8_t> payload, uint8_t status0, uint8_t status1);
    bool keyIsZero() const;

    static const CommandRow* rowOf(uint8_t code);

    McuFlash& mFlash;
    McuSurroundings& mAround;
    LoaderFaults& mFaults;
    std::vector<uint8_t> mFrame;
    PendingFault mFault;
    Nanos mLastByte{0};
    bool mBusy = false, mHung = false, mInNoise = false;
};

}  // namespace quil::board
