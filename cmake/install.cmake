# `cmake --install`: what an outside component needs to build against the library on a workstation.
# The simulated board and the tools stay behind; the closed libraries come from whoever links.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)
get_filename_component(android_libraries ${ANDROID_UTILS_LIBRARY} DIRECTORY)

set(hidl_headers_dir ${CMAKE_BINARY_DIR}/hidl/)
set(quil_include_dir ${CMAKE_INSTALL_INCLUDEDIR}/quil)
install(DIRECTORY platform/vendor/include/ platform/linux/include/ ${hidl_headers_dir}
        DESTINATION ${quil_include_dir} FILES_MATCHING PATTERN "*.h")

set(quil_targets quil_impl quil_interface hidlbase quil_vendor_headers)
if(TARGET unpacker_stub)
  list(APPEND quil_targets unpacker_stub)
  set(QUIL_PC_UNPACKER "-Wl,--no-as-needed -l:7z.so")
endif()
# The passthrough loader finds the implementation beside itself.
foreach(target quil_impl quil_interface hidlbase)
  set_target_properties(${target} PROPERTIES INSTALL_RPATH "$ORIGIN;${android_libraries}")
endforeach()
set_target_properties(quil_impl PROPERTIES EXPORT_NAME impl)
set_target_properties(quil_interface PROPERTIES EXPORT_NAME interface)
set_target_properties(quil_vendor_headers PROPERTIES EXPORT_NAME vendor_headers)
target_compile_features(quil_interface INTERFACE cxx_std_17)
install(TARGETS ${quil_targets} EXPORT quilTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} INCLUDES DESTINATION ${quil_include_dir}
        FILE_SET HEADERS DESTINATION ${quil_include_dir})

set(quil_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/quil)
install(EXPORT quilTargets NAMESPACE quil:: DESTINATION ${quil_package_dir})
configure_package_config_file(cmake/quilConfig.cmake.in ${CMAKE_BINARY_DIR}/quilConfig.cmake
                              INSTALL_DESTINATION ${quil_package_dir})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/quilConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/quilConfig.cmake ${CMAKE_BINARY_DIR}/quilConfigVersion.cmake
        DESTINATION ${quil_package_dir})

# The file says where it lies, so that an installed tree can be moved.
set(quil_pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH QUIL_PC_TO_PREFIX /prefix/${quil_pkgconfig_dir} /prefix)
get_target_property(QUIL_PC_IMPL quil_impl OUTPUT_NAME)
get_target_property(QUIL_PC_INTERFACE quil_interface OUTPUT_NAME)
configure_file(cmake/quil.pc.in ${CMAKE_BINARY_DIR}/quil.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/quil.pc DESTINATION ${quil_pkgconfig_dir})

# How the tests build tests/consumer on an installed tree.
set(QUIL_CONSUMER_FLAGS "-Wall -Wextra -Werror")
if(QUIL_SANITIZE STREQUAL "address")
  string(APPEND QUIL_CONSUMER_FLAGS " -fsanitize=address,undefined")
elseif(QUIL_SANITIZE)
  string(APPEND QUIL_CONSUMER_FLAGS " -fsanitize=${QUIL_SANITIZE}")
endif()
configure_file(tests/consumer/build.sh.in ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/build_consumer
  @ONLY FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)
