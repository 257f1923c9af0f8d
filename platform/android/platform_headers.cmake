# What the product includes of the platform, from a source tree of API 33, for builds with the NDK:
# headers only. The generated ones come from hidl-gen, the tree's or the workstation's.
set(ANDROID_TREE "$ENV{ANDROID_BUILD_TOP}" CACHE PATH "Root of a platform source tree of API 33")
if(NOT EXISTS "${ANDROID_TREE}/system/libhidl")
  message(FATAL_ERROR "ANDROID_TREE (or ANDROID_BUILD_TOP) does not name a tree: '${ANDROID_TREE}'")
endif()
find_program(HIDL_GEN hidl-gen HINTS ${ANDROID_TREE}/out/host/linux-x86/bin REQUIRED)

set(hidl_out ${CMAKE_BINARY_DIR}/hidl)
set(hidl_roots -p ${PROJECT_SOURCE_DIR} -R -r android.hidl:platform/linux/hal
    -r quil.hardware:interfaces)
file(GLOB definitions CONFIGURE_DEPENDS
     ${PROJECT_SOURCE_DIR}/interfaces/quilservicemanager/1.0/*.hal)
set(base_types ${hidl_out}/android/hidl/base/1.0/types.h)
set(generated ${hidl_out}/quil/hardware/quilservicemanager/1.0/IQuilServiceManager.h)
add_custom_command(OUTPUT ${generated} ${base_types}
  COMMAND ${HIDL_GEN} ${hidl_roots} -L c++-headers -o ${hidl_out} android.hidl.base@1.0
  COMMAND ${HIDL_GEN} ${hidl_roots} -L c++-headers -o ${hidl_out} android.hidl.manager@1.0
  COMMAND ${HIDL_GEN} ${hidl_roots} -L c++-headers -o ${hidl_out} quil.hardware.quilservicemanager@1.0
  # Debian's hidl-gen is from before the release that made these inline; clang needs them so.
  COMMAND sed -i "s/^template<> constexpr /template<> inline constexpr /" ${base_types}
  DEPENDS ${definitions} VERBATIM)
add_custom_target(hidl_headers DEPENDS ${generated})

add_library(hidlbase INTERFACE)
target_include_directories(hidlbase SYSTEM INTERFACE
  ${ANDROID_TREE}/system/libhidl/base/include
  ${ANDROID_TREE}/system/libhidl/transport/include
  ${ANDROID_TREE}/system/libhwbinder/include
  ${ANDROID_TREE}/system/libfmq/base
  ${ANDROID_TREE}/system/core/libutils/include
  ${ANDROID_TREE}/system/core/libcutils/include
  ${ANDROID_TREE}/system/core/libsystem/include
  ${ANDROID_TREE}/system/logging/liblog/include
  ${hidl_out})
add_library(quil_interface INTERFACE)
add_dependencies(quil_impl hidl_headers)
