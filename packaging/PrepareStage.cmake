# Run by CPack after the packages' files are in their folders and before it packs them.

# Packages of the same files are identical: no file keeps its creation time.
if(DEFINED ENV{SOURCE_DATE_EPOCH})
  execute_process(COMMAND find "${CPACK_TEMPORARY_DIRECTORY}" -exec touch --no-dereference "--date=@$ENV{SOURCE_DATE_EPOCH}" {} +
    COMMAND_ERROR_IS_FATAL ANY)
endif()

if(CPACK_GENERATOR STREQUAL "DEB")
  # dpkg-shlibdeps expects a control file next to it.
  set(work "${CPACK_TOPLEVEL_DIRECTORY}/shlibdeps")
  file(WRITE "${work}/debian/control" "Source: communicationapi\n")
  foreach(component IN LISTS CPACK_COMPONENTS_ALL)
    set(stage "${CPACK_TEMPORARY_DIRECTORY}/${component}/usr")
    set(binaries)
    file(GLOB_RECURSE candidates "${stage}/bin/*" "${stage}/${CPACK_SORVEX_LIBDIR}/*")
    foreach(candidate IN LISTS candidates)
      if(IS_SYMLINK "${candidate}")
        continue()
      endif()
      file(READ "${candidate}" magic LIMIT 4 HEX)
      if(magic STREQUAL "7f454c46")
        list(APPEND binaries "${candidate}")
      endif()
    endforeach()
    if(NOT binaries)
      continue()
    endif()
    execute_process(COMMAND dpkg-shlibdeps -O "-L${CPACK_SORVEX_SHLIBS}"
        "-l${CPACK_TEMPORARY_DIRECTORY}/host/usr/${CPACK_SORVEX_LIBDIR}" ${binaries}
      WORKING_DIRECTORY "${work}" RESULT_VARIABLE result
      OUTPUT_VARIABLE depends OUTPUT_STRIP_TRAILING_WHITESPACE ERROR_VARIABLE errors)
    if(NOT result EQUAL 0)
      message(FATAL_ERROR "dpkg-shlibdeps: ${errors}")
    endif()
    string(REGEX REPLACE "^.*shlibs:Depends=" "" depends "${depends}")
    string(TOUPPER "${component}" name)
    set(own "${CPACK_DEBIAN_${name}_PACKAGE_DEPENDS}")
    if(own)
      string(PREPEND depends "${own}, ")
    endif()
    set(CPACK_DEBIAN_${name}_PACKAGE_DEPENDS "${depends}")
  endforeach()
endif()
