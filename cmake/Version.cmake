# The version is defined only in project(): this generates <brantle/version.h> from it, the only generated public
# header.
set(BRANTLE_GENERATED_INCLUDE_DIR ${PROJECT_BINARY_DIR}/include)
configure_file(cmake/version.h.in ${BRANTLE_GENERATED_INCLUDE_DIR}/brantle/version.h @ONLY)
