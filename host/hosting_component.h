#pragma once

#include <quil/hardware/quilservicemanager/1.0/IQuilServiceManager.h>

#include <functional>
#include <memory>

#include "host/fpga_load.h"
#include "host/mcu_bring_up.h"
#include "host/mcu_reader.h"
#include "host/start_up.h"

namespace quil::host {

using ::quil::hardware::quilservicemanager::V1_0::IQuilServiceManager;

enum class BootStep { kConfiguration, kMcu, kFpga, kService };

// What a boot does before the first client is let in.
struct BootJobs {
    bool updateMcu = true;
    bool loadFpga = false;                      // by the product's sequence, with a pending image
    std::function<void(BootStep)> onStep = {};  // called at the end of each step that was taken
};

// A service that is up: configuration parsed, MCU link open, the service object loaded, the reader
// bringing it the MCU's answers. Everything goes down with it, in the opposite order.
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

    // What clients talk to; null unless started.
    const android::sp<IQuilServiceManager>& service() const { return mService; }
    // Null unless started.
    const McuReader* reader() const { return mReader.get(); }

  private:
    StartUpResult boot(const BootJobs& jobs);
    StartUpResult loadService();
    void startReader();

    FpgaLoad mFpga = FpgaLoad::kNotAsked;
    McuFirmware mMcuFirmware = McuFirmware::kLeftAsItWas;
    bool mLinkIsOpen = false;  // a descriptor that the parse left at 0 is not ours to close
    android::sp<IQuilServiceManager> mService;
    std::unique_ptr<McuReader> mReader;
};

}  // namespace quil::host
