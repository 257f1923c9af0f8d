// The library's variables, which outlive a test, a fuzzer's input and a boot.
#pragma once

#include <stdlib.h>
#include <string.h>

#include <utility>

#include "config/config_info.h"
#include "fpga/screen/screen_params.h"
#include "fpga/screen/screen_passes.h"
#include "isp/serial_port.h"
#include "mculink/frame.h"
#include "selftest/self_test.h"

namespace quil::tests {

// A library as it is when it was just loaded, for as long as this lives, and again afterwards.
class FreshLibrary {
  public:
    FreshLibrary() { reset(); }
    ~FreshLibrary() { reset(); }
    FreshLibrary(const FreshLibrary&) = delete;
    FreshLibrary& operator=(const FreshLibrary&) = delete;

    static void reset() {
        free(config_info);
        config_info = nullptr;
        g_n_lable = 0;
        fd = -1;
        for (test_option_t& row : test_option_table) row.enable = 0;
        memset(st_func_offset_map_tab, 0, sizeof(st_func_offset_map_tab));
        memset(free_routing_topology, 0, sizeof(free_routing_topology));
        memset(buffer, 0, sizeof(buffer));
    }
};

// The bytes that a load waits for, as the network's thread leaves them once the link is up.
inline void networkIsUp() {
    for (const auto& [at, value] : {std::pair{23, 3}, {25, 1}, {33, 9}, {42, 9}, {47, 9}}) {
        buffer[at] = static_cast<uint8_t>(value);
    }
}

}  // namespace quil::tests
