// The hosting component's start-up: the product configuration and the MCU link, in this order.
#pragma once

#include <string>

namespace quil::host {

enum class StartUpError {
    kNone,
    kConfiguration,  // the product configuration could not be read at all
    kNoUartPath,     // the product file names no serial device for the MCU
    kLink,           // the serial device could not be opened or set up
    kService,        // the implementation library could not be loaded
};

struct StartUpResult {
    StartUpError error = StartUpError::kNone;
    std::string text;  // for a person to read; empty on success

    bool ok() const { return error == StartUpError::kNone; }
};

// Parses the product configuration and opens the MCU link into it. Call it once, before any client
// is let in: until then the record's descriptor is 0, which is a valid one.
StartUpResult startUp();

// Closes the link that startUp opened; not for a configuration that was only parsed. The record's
// descriptor is -1 afterwards.
void shutDown();

}  // namespace quil::host
