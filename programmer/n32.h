// The N32's UART boot loader: whole requests and whole answers, each with a check byte. It cannot
// read the flash out; it compares a stretch of it with a CRC.
//
//   request  0xAA 0x55, command, 0, payload length (2), parameter (4), payload, XOR of all before
//   answer   0xAA 0x55, command, 0, payload length (2), payload, status (2), XOR of all before
//
// Numbers are little-endian. Status 0xA0 0x00 is success.
#pragma once

#include <functional>

#include "programmer/boot_loader.h"

namespace quil::programmer {

class N32 : public BootLoader {
  public:
    N32(Wire& wire, const ConnectOptions& options);
    ~N32() override;
    N32(const N32&) = delete;
    N32& operator=(const N32&) = delete;

    void connect() override;
    Identity identify() override;
    void use(const Part& part) override { mPart = &part; }

    const char* verifiesBy() const override { return "CRC command"; }
    bool readoutProtected() override { return false; }  // no command tells
    [[noreturn]] void read(uint32_t address, std::span<uint8_t> into) override;
    size_t probeSize() const override { return 0; }
    bool holds(uint32_t address, std::span<const uint8_t> expected) override;
    Findings examine(uint32_t address, std::span<const uint8_t> expected) override;
    void write(uint32_t address, std::span<const uint8_t> block) override;
    void erase(const std::vector<uint32_t>& pages) override;
    void eraseEverything() override;

    [[noreturn]] void protectReadout() override { noSuchCommand(); }
    [[noreturn]] void unprotectReadout() override { noSuchCommand(); }
    [[noreturn]] void protectPages(const std::vector<uint8_t>& sectors) override;
    [[noreturn]] void unprotectPages() override { noSuchCommand(); }

    Nanos timeToWrite(size_t bytes) const override;
    Nanos timeToCheck(size_t bytes) const override;
    bool leave() override;

    static uint32_t crcOf(std::span<const uint8_t> bytes);  // of whole words

  private:
    enum class Answer { kDone, kRefused, kNone };
    struct Request {
        uint8_t command;
        uint32_t parameter = 0;
        Bytes payload = {};
        Nanos busy{0};
        size_t answerSize = 0;  // of the answer's payload
    };

    Answer ask(const Request& request, Bytes* data = nullptr);
    Answer answerIn(Bytes& heard, const Request& request, Bytes* data);
    void repeat(const char* what, const Request& request, Bytes* data = nullptr,
                const std::function<bool()>& isDone = nullptr);
    void eraseRun(uint32_t first, uint32_t count);
    bool crcAgrees(uint32_t address, std::span<const uint8_t> expected);
    void narrow(uint32_t address, std::span<const uint8_t> expected, Findings& findings);
    void narrowToWord(uint32_t address, std::span<const uint8_t> expected, Findings& findings);
    bool startLoader();
    bool shakeHands();
    void backInStep(bool isOperation);
    [[noreturn]] static void noSuchCommand();

    Wire& mWire;
    const ConnectOptions mOptions;
    const Part* mPart = nullptr;
    bool mIsWired = false, mWasDamaged = false;
};

}  // namespace quil::programmer
