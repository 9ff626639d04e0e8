# Cross build for 64-bit Windows with mingw-w64; tests run under Wine.
# The library prefix comes from COMMUNICATIONAPI_WINDOWS_PREFIX (cache variable,
# else environment), else from script/bootstrap-windows --print-prefix.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)

if(NOT COMMUNICATIONAPI_WINDOWS_PREFIX)
  if(DEFINED ENV{COMMUNICATIONAPI_WINDOWS_PREFIX})
    set(COMMUNICATIONAPI_WINDOWS_PREFIX $ENV{COMMUNICATIONAPI_WINDOWS_PREFIX})
  else()
    execute_process(COMMAND ${CMAKE_CURRENT_LIST_DIR}/../../script/bootstrap-windows --print-prefix
      OUTPUT_VARIABLE COMMUNICATIONAPI_WINDOWS_PREFIX OUTPUT_STRIP_TRAILING_WHITESPACE
      RESULT_VARIABLE _result)
    if(NOT _result EQUAL 0)
      message(FATAL_ERROR "no Windows libraries for this machine and recipe: run script/bootstrap-windows")
    endif()
  endif()
endif()
if(NOT IS_DIRECTORY ${COMMUNICATIONAPI_WINDOWS_PREFIX}/include)
  message(FATAL_ERROR "COMMUNICATIONAPI_WINDOWS_PREFIX: no such prefix: '${COMMUNICATIONAPI_WINDOWS_PREFIX}'")
endif()
set(COMMUNICATIONAPI_WINDOWS_PREFIX ${COMMUNICATIONAPI_WINDOWS_PREFIX} CACHE PATH "Libraries of the Windows build")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES COMMUNICATIONAPI_WINDOWS_PREFIX)

set(CMAKE_FIND_ROOT_PATH ${COMMUNICATIONAPI_WINDOWS_PREFIX} /usr/x86_64-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
# CMake's FindOpenSSL adds Windows' own libraries only with this setting.
set(OPENSSL_USE_STATIC_LIBS TRUE)

# One Windows version for all: what the headers declare depends on it.
set(CMAKE_C_FLAGS_INIT -D_WIN32_WINNT=0x0A00)
set(CMAKE_CXX_FLAGS_INIT -D_WIN32_WINNT=0x0A00)
# libgcc, libstdc++ and winpthread go into each module.
set(CMAKE_EXE_LINKER_FLAGS_INIT -static)
set(CMAKE_SHARED_LINKER_FLAGS_INIT -static)
set(CMAKE_MODULE_LINKER_FLAGS_INIT -static)

set(CMAKE_CROSSCOMPILING_EMULATOR
  ${CMAKE_CURRENT_LIST_DIR}/run-wine --path ${COMMUNICATIONAPI_WINDOWS_PREFIX}/bin)
