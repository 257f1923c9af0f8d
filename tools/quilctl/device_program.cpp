// quilctl on the device: a client of the service that runs there. It opens no hardware.
#include <stdexcept>

#include "service/tclv_msg.h"
#include "tools/quilctl/commands/verb.h"
#include "tools/quilctl/files/self_test_record.h"
#include "tools/quilctl/session/client.h"

namespace quil::tools {
namespace {

using ::quil::hardware::quilservicemanager::implementation::kCommandSelfTest;

constexpr char kExamples[] =
    "  quilctl get 1\n"
    "  quilctl set 0x102 01 0A";

class ServedSession : public ServiceSession {
  public:
    // Does not wait for a service that is not up: a hanging tool would tell nothing.
    ServedSession() : mService(Service::tryGetService("default")) {
        if (mService == nullptr) throw std::runtime_error("there is no service (see the log)");
    }

    Service& service() override { return *mService; }

  private:
    const android::sp<Service> mService;
};

void selfTest(const Cli& cli, Result& result) {
    const auto session = cli.connect(cli);
    const Bytes record = ask(*session, false, requestOf(kCommandSelfTest, {}));
    auto items = Json::array();
    for (const auto& [item, verdict] : verdictsOf(record)) {
        result.text << item << ": " << verdict << '\n';
        items.push_back({{"item", item}, {"verdict", verdict}});
    }
    result.json = {{"passed", hasPassed(record)}, {"items", items}, {"record", record}};
    if (saysBusy(record)) throw Failure(kFailed, kBusyText);
    throwUnlessPassed(record);
}

void addCommands(CLI::App& app, Cli& cli) {
    addRequestCommands(app, cli);
    addVerb(app, cli,
            {"self-test", "Let the board test its own parts",
             "Exit code 1 when a part is in error or there is no answer.\n"
             "Example: quilctl self-test"},
            selfTest);
    addPowerCommands(app, cli);
    addFrameCommands(app, cli);
}

std::unique_ptr<ServiceSession> connect(const Cli& /*cli*/) {
    return std::make_unique<ServedSession>();
}

}  // namespace

const Program kDeviceProgram = {"Talk to the hardware service of this board.", kExamples,
                                addCommands, connect};

}  // namespace quil::tools
