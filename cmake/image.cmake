# What Android.bp builds, and nothing of the workstation's: for Soong's flags (cmake/soong.cmake) and
# for the NDK with a platform tree (cmake/android-armv7.cmake).
if(QUIL_ANDROID)
  include(platform/android/platform_headers.cmake)
  # The platform's libraries are not built: the programs stay without their functions.
  add_link_options(-Wl,--unresolved-symbols=ignore-all)
else()
  find_package(PkgConfig REQUIRED)
  add_subdirectory(platform/linux)
  add_subdirectory(interfaces)
  # The board's closed libraries by their names, with what the product calls.
  foreach(name quilhal quilhalcommon quilmcuservice quilsdk quilsdkcommon)
    add_library(${name} SHARED)
    target_sources(${name} PRIVATE tests/consumer/closed_libraries.c)
    target_link_libraries(${name} PRIVATE quil_vendor_headers hidlbase)
    target_link_libraries(quil_impl PRIVATE ${name})
  endforeach()
  # Debian's libcutils has no properties.
  add_library(cutils SHARED tests/consumer/properties.c)
  target_include_directories(cutils PRIVATE ${ANDROID_INCLUDE_DIR} platform/linux/include)
  target_link_libraries(hidlbase PUBLIC cutils)
endif()

# The two header libraries of quilctl. Links, since the rest of /usr/include must not come with them.
add_library(quilctl_headers INTERFACE)
foreach(header CLI/CLI.hpp nlohmann/json.hpp)
  cmake_path(GET header PARENT_PATH folder)
  find_path(${folder}_ROOT ${header} NO_CMAKE_FIND_ROOT_PATH REQUIRED)
  file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/header_libs)
  file(CREATE_LINK ${${folder}_ROOT}/${folder} ${CMAKE_BINARY_DIR}/header_libs/${folder} SYMBOLIC)
endforeach()
target_include_directories(quilctl_headers INTERFACE ${CMAKE_BINARY_DIR}/header_libs)
add_library(CLI11::CLI11 ALIAS quilctl_headers)
add_library(nlohmann_json::nlohmann_json ALIAS quilctl_headers)

add_subdirectory(host)
add_subdirectory(tools/quilctl)

if(NOT QUIL_ANDROID)
  # A vendor's module that derives from the exported classes: it has to link.
  add_library(quil_derived SHARED tests/image/derived.cpp)
  target_link_libraries(quil_derived PRIVATE quil_impl)
  add_subdirectory(testing)
  add_subdirectory(tests/image)
endif()
