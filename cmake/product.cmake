# The product: one shared library under its shipped file name, C++17 as the target's tool chain has it.
add_library(quil_vendor_headers INTERFACE)
target_include_directories(quil_vendor_headers INTERFACE
  $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}/platform/vendor/include>)

add_library(quil_impl SHARED
  common/log.cpp
  fpga/ddr_recovery.cpp
  fpga/load_process.cpp
  fpga/net_gap.cpp
  fpga/network_bring_up.cpp
  fpga/screen_blocks.cpp
  fpga/screen_fixed.cpp
  fpga/screen_params.cpp
  fpga/screen_passes.cpp
  fpga/spi_link.cpp
  isp/boot_loader.cpp
  isp/boot_loader_memory.cpp
  isp/boot_mode.cpp
  isp/firmware_file.cpp
  isp/isp_tasks.cpp
  isp/n32_upgrade.cpp
  isp/serial_port.cpp
  mculink/frame.cpp
  mculink/request.cpp
  mculink/uart.cpp
  selftest/self_test.cpp
  selftest/test_items.cpp
  service/control_manager.cpp
  service/quil_service_callback.cpp
  service/quil_service_manager.cpp
  service/request_routing.cpp
  service/self_test_dispatch.cpp
  service/mcu_forwarding.cpp
  service/client_registry.cpp
  service/debug_dump.cpp
  update/config_info.cpp
  update/fpga_update.cpp
  update/mcu_update.cpp)
set_target_properties(quil_impl PROPERTIES
  PREFIX "" OUTPUT_NAME "quil.hardware.quilservicemanager@1.0-impl"
  CXX_STANDARD 17 CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON
  LINK_DEPENDS ${CMAKE_SOURCE_DIR}/quil.map)
target_include_directories(quil_impl PUBLIC $<BUILD_INTERFACE:${CMAKE_SOURCE_DIR}>)
target_link_libraries(quil_impl PUBLIC quil_interface hidlbase quil_vendor_headers Threads::Threads)
target_link_options(quil_impl PRIVATE
  -Wl,--version-script=${CMAKE_SOURCE_DIR}/quil.map -Wl,-z,relro,-z,now,-z,noexecstack)
