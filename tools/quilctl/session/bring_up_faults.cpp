#include "tools/quilctl/session/bring_up_faults.h"

#include <errno.h>
#include <stdio.h>

#include <CLI/CLI.hpp>
#include <algorithm>
#include <array>
#include <string_view>

#include "board/core/lock.h"
#include "board/fpga/screen_partition.h"
#include "fpga/load_process.h"
#include "tools/quilctl/serve/served_board.h"
#include "tools/quilctl/session/board_session.h"
#include "tools/quilctl/session/self_test.h"

namespace quil::tools {
namespace {

using board::Call;

// The bring-ups that come across a fault.
enum BringUp : unsigned {
    kHeron = 1,
    kHeronUpdate = 2,
    kKestrel = 4,  // it loads the same image with an update and without
    kWren = 8,
    kWrenUpdate = 16,
    kAnyHeron = kHeron | kHeronUpdate,
    kAnyWren = kWren | kWrenUpdate,
    kUpdates = kHeronUpdate | kWrenUpdate,
};

// A call of the host that always fails.
struct CallRow {
    std::string_view name;
    const char* meaning;
    unsigned metBy;  // of BringUp
    Call call;
    const char* path;
};
constexpr std::array<CallRow, 10> kCallFaults = {{
    {"erase", "the flash cannot be erased (an update)", kUpdates, Call::kFlashErase,
     board::kFlashDevice},
    {"program", "the flash cannot be programmed (an update)", kUpdates, Call::kFlashProgram,
     board::kFlashDevice},
    {"spi", "the FPGA's SPI device cannot be opened", kAnyHeron, Call::kOpen, board::kFpgaDevice},
    {"screen", "the partition of screen parameters cannot be opened",
     kAnyHeron | kKestrel | kAnyWren, Call::kOpen, board::kScreenPartition},
    {"phy", "the PHY's state cannot be read", kAnyHeron, Call::kRead, board::kPhyStatus},
    {"udp", "the FPGA does not switch to UDP (Heron, an update)", kHeronUpdate, Call::kVendor,
     "fpgaSwitchGmacToUdp"},
    {"driver", "the platform cannot load the FPGA (Kestrel)", kKestrel, Call::kVendor,
     "hal_fpga_load_program_sync"},
    {"screen-udp", "the parameters cannot be sent by UDP (Kestrel)", kKestrel, Call::kVendor,
     "bi_fpga_load_screen_params_by_udp"},
    {"update", "the closed library cannot write the image (Wren_t507, an update)", kWrenUpdate,
     Call::kVendor, "bi_fpga_active_update_program"},
    {"parameters", "the closed library cannot load the parameters (Wren_t507)", kAnyWren,
     Call::kVendor, "bi_fpga_load_parameter"},
}};

// A part that does not work, or works again.
struct PartRow {
    std::string_view name;
    const char* meaning;
    unsigned metBy;
    void (*set)(board::Board&, bool isBroken);
};

board::Readiness never(bool isBroken, board::Readiness usual) {
    return isBroken ? board::Readiness{.failures = -1} : usual;
}

void losePage(board::Board& board, bool isBroken) {
    const board::Fault loss{
        .call = Call::kFlashProgram, .path = board::kFlashDevice, .after = 1, .lostSilently = true};
    if (isBroken) return board.faults().add(loss);
    board.faults().remove([&](const board::Fault& one) {
        return one.call == loss.call && one.path == loss.path && one.lostSilently;
    });
}

constexpr std::array<PartRow, 8> kPartFaults = {{
    {"page", "a page of the image is lost on its way into the flash (an update)", kUpdates,
     losePage},
    {"done", "DONE never rises", kAnyHeron | kKestrel | kWrenUpdate,
     [](board::Board& board, bool isBroken) { board.fpga().setStuckUnconfigured(isBroken); }},
    {"ddr", "the FPGA's DDR never comes good", kAnyHeron,
     [](board::Board& board, bool isBroken) {
         board.fpga().setDdr(never(isBroken, board::Fpga::kDdr));
     }},
    {"ddr-late", "the DDR comes good after one more restart of the FPGA", kHeron,
     [](board::Board& board, bool isBroken) {
         board.fpga().setDdr({.after = board::Fpga::kDdr.after, .failures = isBroken ? 1 : 0});
     }},
    {"clock", "the SGMII clock never comes", kAnyHeron,
     [](board::Board& board, bool isBroken) {
         board.fpga().setSgmiiClock(never(isBroken, board::Fpga::kClock));
     }},
    {"negotiation", "the SGMII negotiation never completes (the link may come all the same)",
     kAnyHeron,
     [](board::Board& board, bool isBroken) {
         board.fpga().setSgmiiNegotiation(never(isBroken, board::Fpga::kNegotiation));
     }},
    {"link", "the PHY has no cable", kAnyHeron,
     [](board::Board& board, bool isBroken) { board.phy().setCable(!isBroken); }},
    {"link-late", "the PHY's link comes after its third reset", kAnyHeron,
     [](board::Board& board, bool isBroken) { board.phy().setDeadResets(isBroken ? 2 : 0); }},
}};

template <typename Rows>
const auto* rowNamed(const Rows& rows, std::string_view name) {
    const auto row = std::find_if(rows.begin(), rows.end(),
                                  [&](const auto& candidate) { return candidate.name == name; });
    return row == rows.end() ? nullptr : &*row;
}

std::string knownFaults(const std::string& separator) {
    std::string names;
    for (const CallRow& row : kCallFaults) names += std::string(row.name) + separator;
    for (const PartRow& row : kPartFaults) names += std::string(row.name) + separator;
    names.resize(names.size() - separator.size());
    return names;
}

BringUp bringUpOf(board::Product product, bool isUpdate) {
    switch (product) {
        case board::Product::kHeron:
            return isUpdate ? kHeronUpdate : kHeron;
        case board::Product::kKestrel:
            return kKestrel;
        case board::Product::kWrenT507:
            return isUpdate ? kWrenUpdate : kWren;
    }
    return kHeron;
}

unsigned metBy(std::string_view name) {
    if (const CallRow* row = rowNamed(kCallFaults, name)) return row->metBy;
    const PartRow* part = rowNamed(kPartFaults, name);
    return part == nullptr ? 0 : part->metBy;
}

// Throws unless the board's bring-up comes across each of the faults.
void requireMet(board::Board& board, const std::vector<std::string>& names, bool isUpdate) {
    const auto product = board::productByName(productOf(board.directory()));
    if (!product) return;  // there is no bring-up, which the command says
    const BringUp bringUp = bringUpOf(*product, isUpdate);
    std::string met, unmet;
    const auto add = [](std::string& list, std::string_view name) {
        list += (list.empty() ? "" : ", ") + std::string(name);
    };
    for (const std::string& name : names) {
        if ((metBy(name) & bringUp) == 0) add(unmet, name);
    }
    for (const PartRow& row : kPartFaults) {
        if ((row.metBy & bringUp) != 0) add(met, row.name);
    }
    for (const CallRow& row : kCallFaults) {
        if ((row.metBy & bringUp) != 0) add(met, row.name);
    }
    if (unmet.empty()) return;
    throw Failure(kUsage, "--fault " + unmet + ": a " + std::string(board::nameOf(*product)) +
                              (isUpdate ? " that is updated" : " without an update") +
                              " never meets it; it meets " + met);
}

std::string checkFaultName(std::string& name) {
    if (rowNamed(kCallFaults, name) != nullptr || rowNamed(kPartFaults, name) != nullptr) return {};
    return "there is no fault '" + name + "': " + knownFaults(", ");
}

std::string helpLine(std::string_view name, const char* meaning) {
    char line[112];
    snprintf(line, sizeof(line), "  %-12s %s\n", std::string(name).c_str(), meaning);
    return line;
}

// A fault event's text begins with the name of the call that failed.
void forgetMet(std::vector<std::string>& unmet, const board::Event& event) {
    std::erase_if(unmet, [&](const std::string& name) {
        const CallRow* row = rowNamed(kCallFaults, name);
        return row != nullptr && event.source == row->path &&
               event.text.rfind(board::nameOf(row->call), 0) == 0;
    });
}

}  // namespace

void addFaultOption(CLI::App& command, std::vector<std::string>& chosen) {
    command.add_option("--fault", chosen, "What is broken in this run, by the names below")
        ->delimiter(',')
        ->type_name("NAME")
        ->check(CLI::Validator(checkFaultName, "{" + knownFaults(",") + "}"));
    std::string help = "Faults:\n";
    for (const PartRow& row : kPartFaults) help += helpLine(row.name, row.meaning);
    for (const CallRow& row : kCallFaults) help += helpLine(row.name, row.meaning);
    command.footer(help + "\n" + command.get_footer());
}

void setBroken(board::Board& board, const std::string& name, bool isBroken) {
    const board::Guard guard(board::boardLock());
    if (const CallRow* row = rowNamed(kCallFaults, name)) {
        const board::Fault fault{.call = row->call, .path = row->path, .error = EIO, .times = -1};
        if (isBroken) return board.faults().add(fault);
        board.faults().remove([&](const board::Fault& one) {
            return one.call == fault.call && one.path == fault.path && one.times < 0;
        });
    } else if (const PartRow* part = rowNamed(kPartFaults, name)) {
        part->set(board, isBroken);
    } else if (name == kMcuPart) {
        board.mcu().setSilent(isBroken);
    } else if (name == kSdCardPart) {
        board.probes().setSdCard(isBroken ? board::SdCard::kMissing : board::SdCard::kPresent);
    } else {
        board.probes().setHealth(name, isBroken ? board::Health::kFaulty : board::Health::kHealthy);
    }
}

std::vector<std::string> breakableNames() {
    std::vector<std::string> names;
    names.reserve(kPartFaults.size() + kCallFaults.size());
    for (const PartRow& row : kPartFaults) names.emplace_back(row.name);
    for (const CallRow& row : kCallFaults) names.emplace_back(row.name);
    names.emplace_back(kMcuPart);
    names.emplace_back(kSdCardPart);
    for (const char* name : board::Probes::partNames()) names.emplace_back(name);
    return names;
}

bool isUpdateAsked(board::Board& board) {
    return board.properties().get(fpga::kUpdateProperty, "0") == "1";
}

BringUpFaults::BringUpFaults(board::Board& board, const std::vector<std::string>& names,
                             bool isUpdate, std::ostream& err)
    : mBoard(board),
      mNames(names),
      mUnmet(std::make_shared<std::vector<std::string>>()),
      mErr(err) {
    requireMet(board, names, isUpdate);
    for (const std::string& name : names) {
        if (rowNamed(kCallFaults, name) != nullptr) mUnmet->push_back(name);
        setBroken(board, name, true);
    }
    board.trace().onEvent([unmet = mUnmet](const board::Event& event) {
        if (event.kind == board::EventKind::kFault) forgetMet(*unmet, event);
    });
}

BringUpFaults::~BringUpFaults() {
    const ServedBoard::Call* call = ServedBoard::call();
    for (const std::string& name : mNames) {
        if (call != nullptr && call->board.broken().count(name) == 0) {
            setBroken(mBoard, name, false);
        }
    }
    for (const std::string& name : *mUnmet) {
        mErr << "quilctl: nothing in this run has come across the fault '" << name << "'\n";
    }
}

}  // namespace quil::tools
