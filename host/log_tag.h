// The tag of the hosting component's messages in the platform's log.
#pragma once

namespace quil::host {

inline constexpr char kLogTag[] = "quil_service_host";

}  // namespace quil::host
