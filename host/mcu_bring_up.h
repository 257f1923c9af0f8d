// The MCU's firmware at start-up: the library's update flow, and what it leaves to its host.
#pragma once

namespace quil::host {

enum class McuFirmware {
    kNotAsked,
    kLeftAsItWas,   // it was up to date, or the update failed and the library's log says why
    kReprogrammed,  // the link was opened anew
    kLinkLost,      // reprogrammed, but the link could not be opened again
};

// Runs the update flow over the open MCU link, which may become another descriptor. Nobody may
// read from the link meanwhile; requests are turned away. Needs startUp().
//
// The flow answers -1 both when nothing had to be done and when it failed: neither is a reason not
// to come up, since the host has no better firmware to offer.
McuFirmware bringMcuUpToDate();

}  // namespace quil::host
