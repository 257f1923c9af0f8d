// The messages that the library may log.
#pragma once

#include <string>

namespace quil::swarm {

bool mayBeLogged(const std::string& text);

}  // namespace quil::swarm
