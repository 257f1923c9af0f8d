// One session with an MCU's boot loader: programming, and what else is done with a part's flash.
#pragma once

#include <filesystem>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "programmer/boot_loader.h"
#include "programmer/journal.h"
#include "programmer/outcome.h"

namespace quil::programmer {

struct Settings {
    std::string chip{};  // the part that is expected: "gd32f303"; empty: whichever answers
    ConnectOptions link{};
    bool dryRun = false;
    bool asIs = false;                   // an image that no part starts is programmed all the same
    bool liftReadoutProtection = false;  // which erases the whole flash
    std::filesystem::path journal{};     // empty: none
    std::string imageName{};             // for the journal
};

// What a session would do, or has done, with an image.
struct Plan {
    std::vector<Page> pages;  // that differ, or hold the vector table while another differs
    size_t pagesOfImage = 0;
    size_t bytes = 0;  // to be written: blocks of 0xFF are not sent
    Nanos time{0};
};

struct Report {
    Outcome outcome = Outcome::kDone;
    std::string reason, remedy;  // of a failure
    const Part* part = nullptr;
    Identity identity;
    LineMode line;
    const char* verifiedBy = "";
    bool readoutProtected = false;
    Plan plan;
    Statistics statistics;
    Nanos writeCeiling{0}, checkCeiling{0};  // what the line and the flash need at least
    std::optional<Findings::Cell> wrong;
};

class Session {
  public:
    Session(Transport& transport, Settings settings, Callbacks callbacks = {});
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    // Each is a whole session: into the boot loader, the work, and out of it. None throws.
    Report flash(std::span<const uint8_t> image);
    Report verify(std::span<const uint8_t> image);
    // So many bytes, 0: up to the end of the flash. `into` gets that size.
    Report read(uint32_t address, size_t size, Bytes& into);
    Report erase(const std::vector<uint32_t>& pages);
    Report eraseEverything();
    Report info(std::span<const uint8_t> image = {});  // an image is checked and compared
    // For each page of an image, whether the flash holds it.
    Report compare(std::span<const uint8_t> image, std::vector<bool>& holds);
    Report protectReadout();
    Report unprotectReadout();
    Report protectPages(const std::vector<uint8_t>& sectors);
    Report unprotectPages();

  private:
    Report run(const std::function<Outcome()>& work);
    void open();
    void connect(const Part* expected);
    void identify();
    void checkImage(std::span<const uint8_t> image) const;
    void checkReadout();
    void compareAll(std::span<const uint8_t> image, std::vector<bool>& holds);
    bool pageHolds(uint32_t address, std::span<const uint8_t> expected, bool isLikely);
    Plan planFor(std::span<const uint8_t> image);
    void program(std::span<const uint8_t> image);
    void writePages(const std::vector<Page>& pages);
    void verifyPages(const std::vector<Page>& pages);
    void programVectorPage(const Page& page);
    void erasePages(const std::vector<Page>& pages);
    void writePage(const Page& page, size_t from);
    void writeStretch(uint32_t address, std::span<const uint8_t> bytes);
    void writeVectorPage(const Page& page);
    void mend(const Page& page, size_t from, size_t to);
    [[noreturn]] void wornCell(const Page& page, const Findings& findings) const;
    std::span<const uint8_t> imageOf(const Page& page) const;
    static Nanos timeToErase(const std::vector<Page>& pages);
    size_t firstBlock() const;
    std::vector<Page> pagesOf(std::span<const uint8_t> image) const;
    void tellEarlier(std::span<const uint8_t> image);
    void beginPhase(const char* name, Nanos share, size_t bytes);
    Outcome failure(const SessionEnd& end);

    const Settings mSettings;
    const Callbacks mCallbacks;
    Wire mWire;
    Journal mJournal;
    std::unique_ptr<BootLoader> mLoader;
    const Part* mPart = nullptr;
    std::span<const uint8_t> mImage;
    bool mHasChanged = false;
    Nanos mExpected{0};  // of what is left
    Report mReport;
};

}  // namespace quil::programmer
