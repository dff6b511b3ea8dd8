# What `cmake --install` installs: the libraries, include/ unchanged and the generated version.h, a CMake package and
# a pkg-config file for each library.
option(BRANTLE_INSTALL "Install the libraries" ${PROJECT_IS_TOP_LEVEL})
if(NOT BRANTLE_INSTALL)
  return()
endif()

include(CMakePackageConfigHelpers)
set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/brantle)

set(libraries thornel cindral brantle)
if(TARGET standard)
  list(APPEND libraries standard)
else()
  set(without_standard PATTERN standard* EXCLUDE)
endif()
install(TARGETS ${libraries} EXPORT brantle
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY include/ ${BRANTLE_GENERATED_INCLUDE_DIR}/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}
        ${without_standard})

install(EXPORT brantle NAMESPACE brantle:: FILE brantleTargets.cmake DESTINATION ${package_dir})
configure_package_config_file(cmake/brantleConfig.cmake.in ${CMAKE_CURRENT_BINARY_DIR}/brantleConfig.cmake
                              INSTALL_DESTINATION ${package_dir} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/brantleConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/brantleConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/brantleConfigVersion.cmake
        DESTINATION ${package_dir})

# brantle_pkg_config(NAME DESCRIPTION text [REQUIRES packages] [REQUIRES_PRIVATE packages] [LIBS_PRIVATE flags])
# The file finds its prefix from its own location, as the CMake package does, so that an installed tree may be moved.
function(brantle_pkg_config name)
  cmake_parse_arguments(PC "" "DESCRIPTION;REQUIRES;REQUIRES_PRIVATE;LIBS_PRIVATE" "" ${ARGN})
  get_target_property(PC_NAME ${name} OUTPUT_NAME)
  if(NOT PC_NAME)
    set(PC_NAME ${name})
  endif()
  file(RELATIVE_PATH PC_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
  get_target_property(PC_VERSION ${name} VERSION)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/library.pc.in ${CMAKE_CURRENT_BINARY_DIR}/lib${PC_NAME}.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/lib${PC_NAME}.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endfunction()

brantle_pkg_config(thornel DESCRIPTION "Value types, text, containers, sockets and socket streams"
                   LIBS_PRIVATE -pthread)
brantle_pkg_config(cindral DESCRIPTION "Ciphers, MACs, keys, signatures and stacked streams"
                   REQUIRES libthornel REQUIRES_PRIVATE libcrypto)
brantle_pkg_config(brantle DESCRIPTION "Client side of SSH protocol version 2"
                   REQUIRES "libcindral libthornel" REQUIRES_PRIVATE libcrypto LIBS_PRIVATE -pthread)
if(TARGET standard)
  brantle_pkg_config(standard DESCRIPTION "SSH with the servers of today, beside libbrantle"
                     REQUIRES "libbrantle libcindral libthornel" REQUIRES_PRIVATE libcrypto)
endif()
