# Language level, warnings and sanitizers of everything built in this tree. Warnings are errors only in the presets,
# as a user's compiler may have others.
set(CMAKE_CXX_STANDARD 17)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
# The build type of a project that includes this one is not changed, not even an empty one.
if(PROJECT_IS_TOP_LEVEL AND NOT CMAKE_BUILD_TYPE AND NOT CMAKE_CONFIGURATION_TYPES)
  set(CMAKE_BUILD_TYPE Release CACHE STRING "Kind of build" FORCE)
endif()

add_library(brantle_options INTERFACE)
target_compile_options(brantle_options INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
if(BRANTLE_SANITIZE)
  target_compile_options(brantle_options INTERFACE
    -fsanitize=${BRANTLE_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  target_link_options(brantle_options INTERFACE -fsanitize=${BRANTLE_SANITIZE})
endif()

# Whether something is built with a sanitizer, by the option above or by flags of the user's.
string(TOUPPER "CMAKE_CXX_FLAGS_${CMAKE_BUILD_TYPE}" flags_of_build_type)
get_directory_property(options_of_directory COMPILE_OPTIONS)
if("-fsanitize=${BRANTLE_SANITIZE} ${CMAKE_CXX_FLAGS} ${${flags_of_build_type}} ${options_of_directory}"
    MATCHES "-fsanitize=[a-z]")
  set(BRANTLE_IS_SANITIZED ON)
else()
  set(BRANTLE_IS_SANITIZED OFF)
endif()
