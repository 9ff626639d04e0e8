# Finds another host framework: SORVEX_COMMON_ROOT holds include/ (host/*.h, SorvexCommonExport.h) and lib/ (the library
# or its import library). Provides the target Sorvex::Common.
find_path(SorvexCommon_INCLUDE_DIR host/IComponentFactory.h
  PATHS "${SORVEX_COMMON_ROOT}/include" NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)
find_library(SorvexCommon_LIBRARY NAMES SorvexCommon
  PATHS "${SORVEX_COMMON_ROOT}/lib" NO_DEFAULT_PATH NO_CMAKE_FIND_ROOT_PATH)

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(SorvexCommon REQUIRED_VARS SorvexCommon_LIBRARY SorvexCommon_INCLUDE_DIR)
mark_as_advanced(SorvexCommon_INCLUDE_DIR SorvexCommon_LIBRARY)

if(SorvexCommon_FOUND AND NOT TARGET Sorvex::Common)
  add_library(Sorvex::Common UNKNOWN IMPORTED)
  set_target_properties(Sorvex::Common PROPERTIES
    IMPORTED_LOCATION "${SorvexCommon_LIBRARY}" INTERFACE_INCLUDE_DIRECTORIES "${SorvexCommon_INCLUDE_DIR}")
  target_link_libraries(Sorvex::Common INTERFACE ACE::ACE)
endif()
