// The USART boot loader of STM32 parts, published as AN3155, which GD32 parts answer as well; these
// have the command 0x06 of their own.
//
// A request has phases (command, address, data..), each answered with ACK or NACK. After an answer
// that does not come, or is neither, nobody knows which phase the part is in: realign() finds out
// with bytes that no phase accepts.
#pragma once

#include <functional>

#include "programmer/boot_loader.h"

namespace quil::programmer {

inline constexpr uint8_t kAck = 0x79, kNack = 0x1F;

class An3155 : public BootLoader {
  public:
    An3155(Wire& wire, const ConnectOptions& options);
    ~An3155() override;
    An3155(const An3155&) = delete;
    An3155& operator=(const An3155&) = delete;

    void connect() override;
    Identity identify() override;
    void use(const Part& part) override { mPart = &part; }

    const char* verifiesBy() const override { return "read-back"; }
    bool readoutProtected() override;
    void read(uint32_t address, std::span<uint8_t> into) override;
    size_t probeSize() const override { return 4; }
    bool holds(uint32_t address, std::span<const uint8_t> expected) override;
    Findings examine(uint32_t address, std::span<const uint8_t> expected) override;
    void write(uint32_t address, std::span<const uint8_t> block) override;
    void erase(const std::vector<uint32_t>& pages) override;
    void eraseEverything() override;

    void protectReadout() override { changeOptions(0x82, {}, mPart->options.most); }
    void unprotectReadout() override;
    void protectPages(const std::vector<uint8_t>& sectors) override;
    void unprotectPages() override { changeOptions(0x73, {}, mPart->options.most); }

    Nanos timeToWrite(size_t bytes) const override;
    Nanos timeToCheck(size_t bytes) const override;
    bool leave() override;

  private:
    enum class Phase { kCommand, kAddress, kCount, kData };
    enum class Answer { kAck, kNack, kNone };
    // How a request ended: the phase that was not acknowledged, and how long the part might have
    // been at work in it.
    struct Attempt {
        Answer answer = Answer::kAck;
        Phase phase = Phase::kCommand;
        Nanos busy{0};
        uint8_t code = 0;
        bool ok() const { return answer == Answer::kAck; }
    };
    using Once = std::function<Attempt()>;

    // The phases.
    Answer ask(std::span<const uint8_t> request, Nanos busy);
    Answer judge(uint8_t first, Nanos busy);
    Attempt command(uint8_t code);
    Attempt addressed(uint8_t code, uint32_t address);
    Attempt reply(uint8_t code, Bytes& data);
    Attempt readOnce(uint32_t address, std::span<uint8_t> into);
    Attempt writeOnce(uint32_t address, std::span<const uint8_t> block);
    Attempt eraseOnce(const Bytes& list, Nanos busy);
    Attempt optionsOnce(uint8_t code, const Bytes& list, Nanos busy);

    void repeat(const char* what, const Once& once, const std::function<bool()>& isDone = nullptr);
    Bytes agreedReply(uint8_t code);
    void readBlock(uint32_t address, std::span<uint8_t> into);
    Bytes voted(uint32_t address, Bytes first);
    Bytes votedBlock(uint32_t address, std::span<const uint8_t> expected);
    void changeOptions(uint8_t code, const Bytes& list, Nanos busy);
    uint32_t gdPid();
    bool offers(uint8_t code) const;
    uint8_t eraseCode() const { return offers(0x44) ? 0x44 : 0x43; }
    bool isLeftToVerify(uint32_t address, std::span<const uint8_t> block);

    // The link.
    bool startLoader();
    bool tryRate();
    bool tryParities();
    const int* lowerRate() const;
    void stepDown(int rate, const std::string& why);
    bool synchronise();
    bool hears();
    Answer poke(uint8_t byte);
    int settle();
    bool flush();
    bool listen();
    bool realign(const Attempt& failed);
    bool realignAfterAck();
    void backInStep(const Attempt& failed);
    void badAnswer();
    uint8_t filler() const;
    [[noreturn]] void refuse(const char* what, const Attempt& attempt) const;

    Wire& mWire;
    const ConnectOptions mOptions;
    const Part* mPart = nullptr;
    LineMode mMode;
    Identity mIdentity;
    Bytes mLast;               // what was sent last
    bool mWasDamaged = false;  // the latest answer was neither ACK nor NACK
    bool mIsWired = false;
    size_t mBad = 0, mAsked = 0;  // since the rate was chosen
};

}  // namespace quil::programmer
