# fmt without its compiled library: header-only.
if(NOT TARGET fmt::fmt-header-only)
  foreach(name fmt fmt-header-only)
    add_library(fmt::${name} INTERFACE IMPORTED)
    set_target_properties(fmt::${name} PROPERTIES
      INTERFACE_COMPILE_DEFINITIONS FMT_HEADER_ONLY=1
      INTERFACE_INCLUDE_DIRECTORIES "${CMAKE_CURRENT_LIST_DIR}/../../../include")
  endforeach()
endif()
