# Finds ACE and ACE_SSL: targets ACE::ACE and ACE::SSL.
find_path(ACE_INCLUDE_DIR ace/ACE.h)
find_library(ACE_LIBRARY NAMES ACE)
find_library(ACE_SSL_LIBRARY NAMES ACE_SSL)
if(ACE_INCLUDE_DIR AND EXISTS "${ACE_INCLUDE_DIR}/ace/Version.h")
  file(STRINGS "${ACE_INCLUDE_DIR}/ace/Version.h" ACE_VERSION_LINE REGEX "define ACE_VERSION ")
  string(REGEX REPLACE ".*\"([0-9.]+).*\".*" "\\1" ACE_VERSION "${ACE_VERSION_LINE}")
endif()

if(WIN32)
  # What a program needs at run time.
  find_file(ACE_RUNTIME NAMES libACE.dll PATH_SUFFIXES bin)
  mark_as_advanced(ACE_RUNTIME)
endif()

include(FindPackageHandleStandardArgs)
find_package_handle_standard_args(ACE REQUIRED_VARS ACE_LIBRARY ACE_SSL_LIBRARY ACE_INCLUDE_DIR VERSION_VAR ACE_VERSION)
mark_as_advanced(ACE_INCLUDE_DIR ACE_LIBRARY ACE_SSL_LIBRARY)

if(ACE_FOUND AND NOT TARGET ACE::ACE)
  find_package(OpenSSL REQUIRED)
  add_library(ACE::ACE UNKNOWN IMPORTED)
  set_target_properties(ACE::ACE PROPERTIES
    IMPORTED_LOCATION "${ACE_LIBRARY}" INTERFACE_INCLUDE_DIRECTORIES "${ACE_INCLUDE_DIR}")
  add_library(ACE::SSL UNKNOWN IMPORTED)
  set_target_properties(ACE::SSL PROPERTIES
    IMPORTED_LOCATION "${ACE_SSL_LIBRARY}" INTERFACE_INCLUDE_DIRECTORIES "${ACE_INCLUDE_DIR}")
  target_link_libraries(ACE::SSL INTERFACE ACE::ACE OpenSSL::SSL OpenSSL::Crypto)
  if(WIN32)
    target_link_libraries(ACE::ACE INTERFACE ws2_32 mswsock iphlpapi netapi32)
  endif()
endif()
