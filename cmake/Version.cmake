# The version stands in project() alone: this makes <brantle/version.h> of it, the one public header that is
# generated.
set(BRANTLE_GENERATED_INCLUDE_DIR ${PROJECT_BINARY_DIR}/include)
configure_file(cmake/version.h.in ${BRANTLE_GENERATED_INCLUDE_DIR}/brantle/version.h @ONLY)
