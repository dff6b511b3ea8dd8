# The target header_check compiles every public header alone, and twice over, so that each includes
# what it uses and guards itself.
file(GLOB_RECURSE headers RELATIVE ${PROJECT_SOURCE_DIR}/include CONFIGURE_DEPENDS
     ${PROJECT_SOURCE_DIR}/include/generic/* ${PROJECT_SOURCE_DIR}/include/brantle/*)
list(APPEND headers brantle/version.h)
set(sources)
foreach(header ${headers})
  string(MAKE_C_IDENTIFIER ${header} name)
  set(source ${CMAKE_CURRENT_BINARY_DIR}/header_check/${name}.cpp)
  file(CONFIGURE OUTPUT ${source} CONTENT "#include <${header}>\n#include <${header}>\n")
  list(APPEND sources ${source})
endforeach()
add_library(header_check OBJECT EXCLUDE_FROM_ALL ${sources})
target_link_libraries(header_check PRIVATE brantle::brantle brantle_options)
