# `cmake --install`: quilctl with its simulated board, and what an outside component needs to build
# against the library on a workstation; its closed libraries come from whoever links. `cpack` makes a
# Debian package of the first.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)
get_filename_component(android_libraries ${ANDROID_UTILS_LIBRARY} DIRECTORY)

set(hidl_headers_dir ${CMAKE_BINARY_DIR}/hidl/)
set(quil_include_dir ${CMAKE_INSTALL_INCLUDEDIR}/quil)
install(DIRECTORY platform/vendor/include/ platform/linux/include/ ${hidl_headers_dir}
        DESTINATION ${quil_include_dir} COMPONENT development FILES_MATCHING PATTERN "*.h")

set(quil_targets quil_impl quil_interface hidlbase quil_vendor_headers)
if(TARGET unpacker_stub)
  list(APPEND quil_targets unpacker_stub)
  set(QUIL_PC_UNPACKER "-Wl,--no-as-needed -l:7z.so")
endif()
# The board's libraries are no business of the workstation's loader: they have a folder of their own.
# The passthrough loader finds the implementation beside itself.
set(quil_lib_dir ${CMAKE_INSTALL_LIBDIR}/quil)
foreach(target quil_impl quil_interface hidlbase quilboard)
  set_target_properties(${target} PROPERTIES INSTALL_RPATH "$ORIGIN;${android_libraries}")
endforeach()
set_target_properties(quil_impl PROPERTIES EXPORT_NAME impl)
set_target_properties(quil_interface PROPERTIES EXPORT_NAME interface)
set_target_properties(quil_vendor_headers PROPERTIES EXPORT_NAME vendor_headers)
target_compile_features(quil_interface INTERFACE cxx_std_17)
install(TARGETS ${quil_targets} EXPORT quilTargets
        LIBRARY DESTINATION ${quil_lib_dir} COMPONENT tools
        INCLUDES DESTINATION ${quil_include_dir}
        FILE_SET HEADERS DESTINATION ${quil_include_dir} COMPONENT development)

file(RELATIVE_PATH quil_bin_to_lib /prefix/${CMAKE_INSTALL_BINDIR} /prefix/${quil_lib_dir})
set_target_properties(quilctl PROPERTIES
  INSTALL_RPATH "$ORIGIN/${quil_bin_to_lib};${android_libraries}")
install(TARGETS quilctl quilboard
        RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools
        LIBRARY DESTINATION ${quil_lib_dir} COMPONENT tools)
install(DIRECTORY ${quilctl_documents}/man1 DESTINATION ${CMAKE_INSTALL_MANDIR} COMPONENT tools)
install(FILES ${quilctl_documents}/quilctl
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tools)
# Where Debian's shells look for the completions of packages.
install(FILES ${quilctl_documents}/_quilctl
        DESTINATION ${CMAKE_INSTALL_DATADIR}/zsh/vendor-completions COMPONENT tools)
install(FILES ${quilctl_documents}/quilctl.fish
        DESTINATION ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d COMPONENT tools)

set(quil_package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/quil)
install(EXPORT quilTargets NAMESPACE quil:: DESTINATION ${quil_package_dir}
        COMPONENT development)
configure_package_config_file(cmake/quilConfig.cmake.in ${CMAKE_BINARY_DIR}/quilConfig.cmake
                              INSTALL_DESTINATION ${quil_package_dir})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/quilConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/quilConfig.cmake ${CMAKE_BINARY_DIR}/quilConfigVersion.cmake
        DESTINATION ${quil_package_dir} COMPONENT development)

# The file says where it lies, so that an installed tree can be moved.
set(quil_pkgconfig_dir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH QUIL_PC_TO_PREFIX /prefix/${quil_pkgconfig_dir} /prefix)
get_target_property(QUIL_PC_IMPL quil_impl OUTPUT_NAME)
get_target_property(QUIL_PC_INTERFACE quil_interface OUTPUT_NAME)
configure_file(cmake/quil.pc.in ${CMAKE_BINARY_DIR}/quil.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/quil.pc DESTINATION ${quil_pkgconfig_dir} COMPONENT development)

# How the tests build tests/consumer on an installed tree.
set(QUIL_CONSUMER_FLAGS "-Wall -Wextra -Werror")
if(QUIL_SANITIZE STREQUAL "address")
  string(APPEND QUIL_CONSUMER_FLAGS " -fsanitize=address,undefined")
elseif(QUIL_SANITIZE AND NOT QUIL_SANITIZE STREQUAL "coverage")
  string(APPEND QUIL_CONSUMER_FLAGS " -fsanitize=${QUIL_SANITIZE}")
endif()
configure_file(tests/consumer/build.sh.in ${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/build_consumer
  @ONLY FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME quilctl)
set(CPACK_PACKAGE_CONTACT "Quil <quil@localhost>")
# What Debian asks of a package's documents.
configure_file(cmake/package/changelog.in ${CMAKE_BINARY_DIR}/package/changelog @ONLY)
execute_process(COMMAND gzip -9nc ${CMAKE_BINARY_DIR}/package/changelog
                OUTPUT_FILE ${CMAKE_BINARY_DIR}/package/changelog.gz COMMAND_ERROR_IS_FATAL ANY)
install(FILES cmake/package/copyright ${CMAKE_BINARY_DIR}/package/changelog.gz
        DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/quilctl COMPONENT tools)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "command line and simulated board of an LED-display controller")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
    "quilctl talks to the hardware service of an LED-display controller board,
on a simulated board that it brings along: requests, start-ups,
programming of the microcontroller and the FPGA, faults and traces.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL tools)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME quilctl)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION devel)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})
include(CPack)
