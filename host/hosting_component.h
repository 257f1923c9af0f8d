#pragma once

#include <quil/hardware/quilservicemanager/1.0/IQuilServiceManager.h>

#include <functional>
#include <memory>

#include "host/fpga_load.h"
#include "host/front_door.h"
#include "host/mcu_bring_up.h"
#include "host/mcu_reader.h"
#include "host/start_up.h"

namespace quil::host {

enum class BootStep { kConfiguration, kClients, kMcu, kFpga, kUp };

// What a boot does, and whom it tells.
struct BootJobs {
    bool updateMcu = true;
    bool loadFpga = false;  // by the product's sequence, with a pending image
    // More than these at once are turned away: whoever serves from a pool of threads needs some
    // that no request holds. Each waits for the MCU for up to 5 s, and for those before it.
    unsigned requestsAtOnce = FrontDoor::kNoLimit;
    // Lets clients in: called once, when the configuration is read and the link is open, before the
    // jobs. False ends the start.
    std::function<bool(const android::sp<IQuilServiceManager>&)> letClientsIn = {};
    std::function<void(BootStep)> onStep = {};  // called at the end of each step that was taken
    // Gives what stands in the place of the library's service object behind the door, and passes
    // all calls on to it, for who watches them.
    std::function<android::sp<IQuilServiceManager>(const android::sp<IQuilServiceManager>&)> watch =
        {};
};

// A service that is up: configuration parsed, MCU link open, the service object loaded, the reader
// bringing it the MCU's answers. Everything goes down with it, in the opposite order.
//
// Clients are in before the jobs, which take up to minutes. While firmware is written their MCU
// requests, power modes and self-tests are answered with 0xFF; nobody but the update flow reads or
// writes the link; the reader takes it over once the flow is through with it.
class HostingComponent {
  public:
    HostingComponent() = default;
    ~HostingComponent();
    HostingComponent(const HostingComponent&) = delete;
    HostingComponent& operator=(const HostingComponent&) = delete;

    StartUpResult start(const BootJobs& jobs = {});
    void stop();

    // What the last start did to the MCU.
    McuFirmware mcuFirmware() const { return mMcuFirmware; }
    // How the last start's load of the FPGA ended. A service is up without an FPGA, too.
    FpgaLoad fpga() const { return mFpga; }

    // What clients talk to; null unless they are in.
    android::sp<IQuilServiceManager> service() const { return mDoor; }
    // Null until the MCU's firmware is up to date, and unless started.
    const McuReader* reader() const { return mReader.get(); }

  private:
    StartUpResult boot(const BootJobs& jobs);
    StartUpResult openDoor(const BootJobs& jobs);
    StartUpResult updateMcu(const BootJobs& jobs);
    void startReader();
    void runFpgaLoad(const BootJobs& jobs);

    FpgaLoad mFpga = FpgaLoad::kNotAsked;
    McuFirmware mMcuFirmware = McuFirmware::kNotAsked;
    bool mLinkIsOpen = false;  // a descriptor that the parse left at 0 is not ours to close
    android::sp<FrontDoor> mDoor;
    std::unique_ptr<McuReader> mReader;
};

}  // namespace quil::host
