#pragma once

namespace quil::common {

inline constexpr char kVersion[] = "1.0.0";

}  // namespace quil::common
