# What the modules include of the platform, from a source tree of API 33, for builds with the NDK:
# headers only. The generated ones come from hidl-gen, the tree's or the workstation's.
set(ANDROID_TREE "$ENV{ANDROID_BUILD_TOP}" CACHE PATH "Root of a platform source tree of API 33")
if(NOT EXISTS "${ANDROID_TREE}/system/libhidl")
  message(FATAL_ERROR "ANDROID_TREE (or ANDROID_BUILD_TOP) does not name a tree: '${ANDROID_TREE}'")
endif()
find_program(HIDL_GEN hidl-gen HINTS ${ANDROID_TREE}/out/host/linux-x86/bin REQUIRED)

set(hidl_out ${CMAKE_BINARY_DIR}/hidl)
set(hidl_roots -p ${PROJECT_SOURCE_DIR} -R -r android.hidl:${ANDROID_TREE}/system/libhidl/transport
    -r quil.hardware:interfaces)
file(GLOB definitions CONFIGURE_DEPENDS
     ${PROJECT_SOURCE_DIR}/interfaces/quilservicemanager/1.0/*.hal)
set(base_types ${hidl_out}/android/hidl/base/1.0/types.h)
set(generated ${hidl_out}/quil/hardware/quilservicemanager/1.0)
set(generated_sources ${generated}/QuilServiceManagerAll.cpp ${generated}/QuilServiceCallbackAll.cpp)
set(generate ${HIDL_GEN} ${hidl_roots} -o ${hidl_out})
add_custom_command(OUTPUT ${generated_sources} ${generated}/IQuilServiceManager.h ${base_types}
  COMMAND ${generate} -L c++-headers android.hidl.base@1.0
  COMMAND ${generate} -L c++-headers android.hidl.manager@1.0
  COMMAND ${generate} -L c++ quil.hardware.quilservicemanager@1.0
  # Debian's hidl-gen is from before the release that made these inline; clang needs them so.
  COMMAND sed -i "s/^template<> constexpr /template<> inline constexpr /" ${base_types}
  DEPENDS ${definitions} VERBATIM)
add_custom_target(hidl_headers DEPENDS ${generated_sources})

add_library(hidlbase INTERFACE)
add_dependencies(hidlbase hidl_headers)
target_include_directories(hidlbase SYSTEM INTERFACE
  ${ANDROID_TREE}/system/libhidl/base/include
  ${ANDROID_TREE}/system/libhidl/transport/include
  ${ANDROID_TREE}/system/libhwbinder/include
  ${ANDROID_TREE}/system/libfmq/base
  ${ANDROID_TREE}/system/libbase/include
  ${ANDROID_TREE}/system/core/libutils/include
  ${ANDROID_TREE}/system/core/libcutils/include
  ${ANDROID_TREE}/system/core/libsystem/include
  ${ANDROID_TREE}/system/logging/liblog/include
  ${hidl_out})

add_library(quil_interface SHARED ${generated_sources})
set_target_properties(quil_interface PROPERTIES
  PREFIX "" OUTPUT_NAME "quil.hardware.quilservicemanager@1.0" CXX_STANDARD 17)
# As Soong compiles what hidl-gen writes: its warnings are nobody's.
target_compile_options(quil_interface PRIVATE -w)
target_link_libraries(quil_interface PUBLIC hidlbase)
