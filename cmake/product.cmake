# The product: one shared library under its shipped file name, C++17 as the target's tool chain has it.
add_library(quil_vendor_headers INTERFACE)
target_include_directories(quil_vendor_headers INTERFACE
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/platform/vendor/include>)

add_library(quil_impl SHARED)
# Each folder names its sources, and its headers that declare what leaves the library or that those
# include: they are what is installed.
target_sources(quil_impl PUBLIC FILE_SET HEADERS BASE_DIRS ${PROJECT_SOURCE_DIR})
foreach(folder common config mculink isp fpga selftest service)
  add_subdirectory(${folder})
endforeach()
set_target_properties(quil_impl PROPERTIES
  PREFIX "" OUTPUT_NAME "quil.hardware.quilservicemanager@1.0-impl"
  CXX_STANDARD 17 CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON
  LINK_DEPENDS ${PROJECT_SOURCE_DIR}/quil.map
  UNITY_BUILD OFF)
target_link_libraries(quil_impl PUBLIC quil_interface hidlbase quil_vendor_headers Threads::Threads)
target_link_options(quil_impl PRIVATE
  -Wl,--version-script=${PROJECT_SOURCE_DIR}/quil.map -Wl,-z,relro,-z,now,-z,noexecstack)
if(QUIL_SANITIZE STREQUAL "coverage")
  # Not optimised, so that each branch is one of the source. The counters lie in the profile's file, so
  # that a process that is killed has counted, too; several processes count in it at once.
  target_compile_options(quil_impl PRIVATE
    -O0 -fprofile-instr-generate=${CMAKE_BINARY_DIR}/profiles/%c%m.profraw -fcoverage-mapping
    -fprofile-update=atomic "SHELL:-mllvm -runtime-counter-relocation")
  target_link_options(quil_impl PRIVATE -fprofile-instr-generate)
endif()
