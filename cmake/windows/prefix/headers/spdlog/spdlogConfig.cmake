# spdlog without its compiled library: header-only.
include(CMakeFindDependencyMacro)
find_dependency(fmt CONFIG)
find_dependency(Threads)
if(NOT TARGET spdlog::spdlog_header_only)
  foreach(name spdlog spdlog_header_only)
    add_library(spdlog::${name} INTERFACE IMPORTED)
    set_target_properties(spdlog::${name} PROPERTIES
      INTERFACE_COMPILE_DEFINITIONS SPDLOG_FMT_EXTERNAL
      INTERFACE_INCLUDE_DIRECTORIES "${CMAKE_CURRENT_LIST_DIR}/../../../include"
      INTERFACE_LINK_LIBRARIES "fmt::fmt-header-only;Threads::Threads")
  endforeach()
endif()
