# brantle_shared_library(NAME VERSION v SOVERSION s MACRO M [OUTPUT_NAME o] LINKS ...)
#
# A shared library of this tree: hidden visibility, one export macro (M_API, switched by
# M_BUILDING), a version script made from library.map.in beside this file with the one node
# M_SOVERSION, and the alias brantle::NAME under which the tree and an installed package know it
# alike.
include(CheckLinkerFlag)
check_linker_flag(CXX -Wl,-z,pack-relative-relocs BRANTLE_HAVE_RELR)
set(BRANTLE_RELR $<$<BOOL:${BRANTLE_HAVE_RELR}>:-Wl,-z,pack-relative-relocs>)

function(brantle_shared_library name)
  cmake_parse_arguments(ARG "" "VERSION;SOVERSION;MACRO;OUTPUT_NAME" "LINKS" ${ARGN})
  add_library(${name} SHARED)
  add_library(brantle::${name} ALIAS ${name})
  set(NODE ${ARG_MACRO}_${ARG_SOVERSION})
  set(script ${CMAKE_CURRENT_BINARY_DIR}/${name}.map)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/library.map.in ${script} @ONLY)
  set_target_properties(${name} PROPERTIES
    VERSION ${ARG_VERSION} SOVERSION ${ARG_SOVERSION}
    CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON
    INSTALL_RPATH $ORIGIN
    LINK_DEPENDS ${script})
  if(ARG_OUTPUT_NAME)
    set_target_properties(${name} PROPERTIES OUTPUT_NAME ${ARG_OUTPUT_NAME})
  endif()
  target_compile_definitions(${name} PRIVATE ${ARG_MACRO}_BUILDING)
  target_include_directories(${name} PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
    $<BUILD_INTERFACE:${BRANTLE_GENERATED_INCLUDE_DIR}>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_compile_features(${name} PUBLIC cxx_std_17)
  # Built for size, as small targets are supported: the time goes into libcrypto and the kernel. Calls inside a
  # library are bound when it is linked.
  target_compile_options(${name} PRIVATE -fno-plt -fno-semantic-interposition $<$<CONFIG:Release>:-Os>
    $<$<AND:$<CONFIG:Release>,$<CXX_COMPILER_ID:GNU>>:-flto=auto>)
  target_link_options(${name} PRIVATE -Wl,--version-script=${script} -Wl,-Bsymbolic-functions
    -Wl,-z,noseparate-code ${BRANTLE_RELR})
  # With clang++ the functions of a sanitizer are only in the program.
  if(NOT BRANTLE_IS_SANITIZED)
    target_link_options(${name} PRIVATE -Wl,--no-undefined)
  endif()
  target_link_libraries(${name} PUBLIC ${ARG_LINKS} PRIVATE $<BUILD_INTERFACE:brantle_options>)
endfunction()
