// quilctl on the device: a client of the service that runs there. It opens no hardware.
#include <CLI/CLI.hpp>
#include <nlohmann/json.hpp>
#include <ostream>
#include <stdexcept>

#include "service/tclv_msg.h"
#include "tools/quilctl/cli.h"
#include "tools/quilctl/files/self_test_record.h"
#include "tools/quilctl/session/client.h"

namespace quil::tools {
namespace {

using ::quil::hardware::quilservicemanager::implementation::kCommandSelfTest;

constexpr char kFooter[] =
    "Exit codes:\n"
    "  0  done\n"
    "  1  no answer, or a part in error\n"
    "  2  wrong command line\n"
    "  3  a frame with something wrong in it\n"
    "  4  the service is not there\n"
    "Examples:\n"
    "  quilctl get 1\n"
    "  quilctl set 0x102 01 0A";

class ServedSession : public ServiceSession {
  public:
    // Does not wait for a service that is not up: a tool that hangs tells nothing.
    ServedSession() : mService(Service::tryGetService("default")) {
        if (mService == nullptr) throw std::runtime_error("there is no service (see the log)");
    }

    Service& service() override { return *mService; }

  private:
    const android::sp<Service> mService;
};

void printVerdicts(const Cli& cli, const Bytes& record) {
    std::ostream& out = cli.console.out;
    if (!cli.options.json) {
        for (const auto& [item, verdict] : verdictsOf(record))
            out << item << ": " << verdict << '\n';
        return;
    }
    auto items = nlohmann::json::array();
    for (const auto& [item, verdict] : verdictsOf(record)) {
        items.push_back({{"item", item}, {"verdict", verdict}});
    }
    out << nlohmann::json{{"passed", hasPassed(record)}, {"items", items}, {"record", record}}
               .dump()
        << '\n';
}

int selfTest(const Cli& cli) {
    const auto session = cli.connect(cli);
    const Bytes record = ask(*session, false, requestOf(kCommandSelfTest, {}));
    printVerdicts(cli, record);
    if (record.empty()) cli.console.err << "no answer\n";
    if (saysBusy(record)) cli.console.err << kBusyText;
    return hasPassed(record) ? kOk : kFailed;
}

void addCommands(CLI::App& app, Cli& cli) {
    app.add_flag("--json", cli.options.json, "Print JSON");
    addRequestCommands(app, cli);
    CLI::App* command = app.add_subcommand("self-test", "Let the board test its own parts");
    command->footer("Exit code 1 when a part is in error or there is no answer.");
    command->callback([&cli] { cli.action = [&cli] { return selfTest(cli); }; });
    addPowerCommands(app, cli);
    addFrameCommands(app, cli);
}

std::unique_ptr<ServiceSession> connect(const Cli& /*cli*/) {
    return std::make_unique<ServedSession>();
}

}  // namespace

const Program kDeviceProgram = {"Talk to the hardware service of this board.", kFooter, addCommands,
                                connect};

}  // namespace quil::tools
