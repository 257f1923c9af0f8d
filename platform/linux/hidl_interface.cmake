# hidl_interface(<target> PACKAGE <name@1.0> DIRECTORY <its .hal files> INTERFACES <I...> [TYPES])
#
# Adds to <target> the headers that hidl-gen writes for a package (TYPES: it has a types.hal), and
# for each interface a source with the methods that every interface has.
find_program(HIDL_GEN hidl-gen REQUIRED)

set(QUIL_HIDL_OUT ${CMAKE_BINARY_DIR}/hidl)
set(QUIL_HIDL_ROOTS -p ${PROJECT_SOURCE_DIR} -R -r android.hidl:platform/linux/hal
    -r quil.hardware:interfaces)
set(QUIL_HIDL_INTERFACE_TEMPLATE ${CMAKE_CURRENT_LIST_DIR}/interface.cpp.in)

# SHA-256 of each named definition, as rows of a C array of arrays.
function(hidl_hashes out)
  set(rows "")
  foreach(fqname ${ARGN})
    execute_process(COMMAND ${HIDL_GEN} ${QUIL_HIDL_ROOTS} -L hash ${fqname}
                    OUTPUT_VARIABLE printed COMMAND_ERROR_IS_FATAL ANY)
    string(REGEX MATCH "^[0-9a-f]+" hash "${printed}")
    string(REGEX REPLACE "(..)" "0x\\1, " bytes "${hash}")
    string(APPEND rows "{${bytes}}, ")
  endforeach()
  set(${out} "${rows}" PARENT_SCOPE)
endfunction()

# The source of one interface: adds it to the target.
function(hidl_interface_source target package interface)
  string(REGEX REPLACE "@([0-9]+)\\.([0-9]+)$" ".V\\1_\\2" dotted ${package})
  string(REPLACE "." "::" HIDL_NAMESPACE ${dotted})
  string(REGEX REPLACE "[.@]" "/" directory "${package}")
  string(REGEX REPLACE "/([0-9]+)/([0-9]+)$" "/\\1.\\2" directory "${directory}")
  set(HIDL_INTERFACE ${interface})
  set(HIDL_FQNAME "${package}::${interface}")
  set(HIDL_HEADER ${directory}/${interface}.h)
  if(HIDL_FQNAME STREQUAL "android.hidl.base@1.0::IBase")
    set(HIDL_IS_ROOT 1)
    set(HIDL_CHAIN "IBase::descriptor")
    hidl_hashes(HIDL_HASHES ${HIDL_FQNAME})
  else()
    set(HIDL_IS_ROOT 0)
    set(HIDL_CHAIN "${interface}::descriptor, IBase::descriptor")
    hidl_hashes(HIDL_HASHES ${HIDL_FQNAME} android.hidl.base@1.0::IBase)
  endif()
  set(source ${QUIL_HIDL_OUT}/${directory}/${interface}.cpp)
  configure_file(${QUIL_HIDL_INTERFACE_TEMPLATE} ${source} @ONLY)
  target_sources(${target} PRIVATE ${source})
endfunction()

function(hidl_interface target)
  cmake_parse_arguments(ARG "TYPES" "PACKAGE;DIRECTORY" "INTERFACES" ${ARGN})
  string(REGEX MATCH "^(.*)@([0-9.]+)$" _ ${ARG_PACKAGE})
  string(REPLACE "." "/" path ${CMAKE_MATCH_1})
  set(path ${path}/${CMAKE_MATCH_2})
  set(names ${ARG_INTERFACES})
  if(ARG_TYPES)
    list(APPEND names types)
  endif()
  foreach(name ${names})
    list(APPEND fqnames ${ARG_PACKAGE}::${name})
    list(APPEND definitions ${PROJECT_SOURCE_DIR}/${ARG_DIRECTORY}/${name}.hal)
    list(APPEND headers ${QUIL_HIDL_OUT}/${path}/${name}.h)
  endforeach()
  # Hashes are taken when the tree is configured: again, when a definition changes.
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${definitions})
  add_custom_command(OUTPUT ${headers}
    COMMAND ${HIDL_GEN} ${QUIL_HIDL_ROOTS} -L c++-headers -o ${QUIL_HIDL_OUT} ${fqnames}
    # Debian's hidl-gen is from before the release that made these inline; clang needs them so.
    COMMAND sed -i "s/^template<> constexpr /template<> inline constexpr /" ${headers}
    DEPENDS ${definitions} COMMENT "hidl-gen ${ARG_PACKAGE}" VERBATIM)
  target_sources(${target} PRIVATE ${headers})
  if(NOT TARGET hidl_headers)
    add_custom_target(hidl_headers)  # for who only reads the sources
  endif()
  string(REGEX REPLACE "[@.]" "_" headers_target hidl_headers_${ARG_PACKAGE})
  add_custom_target(${headers_target} DEPENDS ${headers})
  add_dependencies(hidl_headers ${headers_target})
  foreach(interface ${ARG_INTERFACES})
    hidl_interface_source(${target} ${ARG_PACKAGE} ${interface})
  endforeach()
endfunction()
