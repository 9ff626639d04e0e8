# What CPack makes from the components: five Debian packages on POSIX, one archive for Windows.
set(CPACK_PACKAGE_NAME communicationapi)
set(CPACK_PACKAGE_VENDOR Sorvex)
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_CONTACT "Sorvex maintainers <maintainers@sorvex.example>" CACHE STRING "Who answers for the packages")
# Each package has its own description.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "")
set(CPACK_PACKAGE_DIRECTORY "${CMAKE_BINARY_DIR}/packages")
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
  OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_STRIP_FILES TRUE)
set(CPACK_PRE_BUILD_SCRIPTS "${CMAKE_CURRENT_SOURCE_DIR}/PrepareStage.cmake")
set(CPACK_VERBATIM_VARIABLES TRUE)

# sorvex_write_notices(FILE PACKAGE...): our own notice, then those of the Debian packages whose code is compiled in.
function(sorvex_write_notices file)
  file(READ "${CMAKE_CURRENT_SOURCE_DIR}/copyright.in" text)
  string(CONFIGURE "${text}" text @ONLY)
  foreach(package IN LISTS ARGN)
    string(APPEND text "\n${package}\n")
    string(REGEX REPLACE "." "-" line "${package}")
    string(APPEND text "${line}\n\n")
    if(EXISTS "/usr/share/doc/${package}/copyright")
      file(READ "/usr/share/doc/${package}/copyright" notice)
      string(APPEND text "${notice}")
    else()
      string(APPEND text "Its notice is not on the machine on which this was built.\n")
    endif()
  endforeach()
  file(WRITE "${file}" "${text}")
endfunction()

if(WIN32)
  sorvex_write_notices("${CMAKE_CURRENT_BINARY_DIR}/NOTICES.txt"
    libace-dev libssl-dev libcurl4-openssl-dev libspdlog-dev libfmt-dev libcli11-dev
    gcc-mingw-w64-base mingw-w64-common)
  install(FILES "${CMAKE_CURRENT_BINARY_DIR}/NOTICES.txt" "${CMAKE_CURRENT_SOURCE_DIR}/windows/README.txt"
    DESTINATION . COMPONENT runtime)
  set(CPACK_GENERATOR ZIP)
  set(CPACK_COMPONENTS_ALL runtime host agent configserver)
  # One folder for all of them.
  set(CPACK_ARCHIVE_COMPONENT_INSTALL ON)
  set(CPACK_COMPONENTS_GROUPING ALL_COMPONENTS_IN_ONE)
  set(CPACK_COMPONENT_INCLUDE_TOPLEVEL_DIRECTORY ON)
  set(CPACK_PACKAGE_FILE_NAME "sorvex-agent-${PROJECT_VERSION}-windows-x86_64")
  set(CPACK_STRIP_FILES FALSE)
else()
  include(Debian.cmake)
endif()
include(CPack)
