// The microcontroller's application: it reads requests from its serial line, checks every byte,
// keeps the values that are set, and answers.
#pragma once

#include <stdint.h>

#include <map>
#include <string>
#include <vector>

#include "board/devices/uart.h"

namespace quil::board {

class McuApplication : public UartPeer {
  public:
    struct Request {
        Nanos at;
        uint16_t label;
        uint8_t flags;
        bool isWrite;
        uint32_t cmd;
        std::vector<uint8_t> payload;
        std::vector<uint8_t> frame;
    };
    static constexpr uint32_t kVersionCommand = 0x00000001;
    // The word after the command in the firmware updater's query. The answer has the part's name
    // and the version, each NUL padded to 16 bytes: the version starts at byte 46 of the frame.
    static constexpr uint32_t kUpdatersScope = 0x00030000;
    static constexpr size_t kIdentificationPart = 16, kIdentificationVersion = 16;
    static constexpr Nanos kLongestGap = std::chrono::milliseconds(50);  // inside one frame
    static constexpr Nanos kAnswerDelay = std::chrono::milliseconds(1);  // after the last byte

    // Keeps its values in the board's file "mcu/values". Silent until start.
    McuApplication(BoardServices&, Uart&, int baud);
    ~McuApplication() override;
    McuApplication(const McuApplication&) = delete;
    McuApplication& operator=(const McuApplication&) = delete;

    std::vector<Request> requests() const;  // recorded, the well-formed ones, in order
    size_t badFrames() const;
    // False: a get of this command is answered with four zero bytes, since nothing was ever set.
    bool knows(uint32_t cmd) const;
    void setSilent(bool);
    void setNoise(std::vector<uint8_t> before, std::vector<uint8_t> after);  // around each answer
    void setCorruptAnswers(bool);  // flips a bit of the checksum
    void setAnswer(uint32_t cmd, std::vector<uint8_t> payload);
    void setLine(LineSettings);
    void sendUnsolicited(const std::vector<uint8_t>& payload, uint32_t cmd);

    // The part starts the application in its flash; any reset stops it.
    void start(std::string partName, std::string version);
    void stop();

    void receive(uint8_t byte) override;
    LineSettings lineSettings() const override;

  private:
    void startOver(const std::string& why);
    void checkHeader();
    void checkFrame();
    void accept();
    void answer(const Request&);
    std::vector<uint8_t> answerTo(const Request&);
    std::vector<uint8_t> identification() const;
    void send(std::vector<uint8_t> frame);
    void load();
    void saveValues() const;

    BoardServices& mBoard;
    Uart& mUart;
    LineSettings mLine;
    std::string mPartName, mVersion;
    bool mRunning = false;
    uint64_t mEpoch = 0;  // counts starts and stops
    std::map<uint32_t, std::vector<uint8_t>> mValues, mFixedAnswers;
    std::vector<uint8_t> mFrame;
    bool mInNoise = false;
    Nanos mLastByte{0};
    size_t mBadFrames = 0;
    std::vector<Request> mRequests;
    bool mSilent = false, mCorrupt = false;
    std::vector<uint8_t> mNoiseBefore, mNoiseAfter;
};

}  // namespace quil::board
