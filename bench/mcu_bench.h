// The parts of quil_mcu_bench. Each prints its figures and says whether they hold.
#pragma once

#include <iosfwd>

namespace quil::bench {

bool mcuProgramming(std::ostream& out);
bool programmerBeside(std::ostream& out);

}  // namespace quil::bench
