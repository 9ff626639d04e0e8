# Settings that every target of the project shares, and the interface target `sorvex_settings` that carries them.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
# The name of the build folder stands in no binary.
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/bin")
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/bin")
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/lib")
if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE RelWithDebInfo)
endif()

# Which implementation stands behind src/platform and host/platform.
if(WIN32)
  set(SORVEX_PLATFORM windows)
  # Our libraries are named as the callers load them, whatever the compiler's habit.
  set(CMAKE_SHARED_LIBRARY_PREFIX "")
  set(CMAKE_SHARED_MODULE_PREFIX "")
else()
  set(SORVEX_PLATFORM posix)
endif()

find_program(CCACHE ccache)
if(CCACHE)
  # A clone in another folder finds what this one has compiled, and precompiled headers are cached.
  set(CMAKE_CXX_COMPILER_LAUNCHER "${CMAKE_COMMAND}" -E env
    "CCACHE_BASEDIR=${CMAKE_SOURCE_DIR}" CCACHE_NOHASHDIR=1 CCACHE_SLOPPINESS=pch_defines,time_macros "${CCACHE}")
endif()

# What everything is compiled and linked with.
add_library(sorvex_common_settings INTERFACE)
# What ships is hardened besides.
add_library(sorvex_settings INTERFACE)
target_link_libraries(sorvex_settings INTERFACE sorvex_common_settings)
# Tests are compiled as fast as can be: what they measure is the code that ships, and that is compiled as it ships.
add_library(sorvex_test_settings INTERFACE)
target_link_libraries(sorvex_test_settings INTERFACE sorvex_common_settings)
if(MSVC)
  target_compile_options(sorvex_common_settings INTERFACE /W4 /WX /utf-8 /permissive-)
else()
  target_compile_options(sorvex_common_settings INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor -Woverloaded-virtual -Wold-style-cast -Werror
    # One tree gives one binary wherever it lies.
    -ffile-prefix-map=${CMAKE_SOURCE_DIR}=.)
  # The compiler cache hands sources to the compiler by their path from the build folder: what ships has the same names
  # of files in it with and without the cache. (The cache does not look at the value: a change of it needs an empty one.)
  file(RELATIVE_PATH path_to_sources "${CMAKE_BINARY_DIR}" "${CMAKE_SOURCE_DIR}")
  target_compile_options(sorvex_settings INTERFACE $<$<CONFIG:Release>:-fmacro-prefix-map=${path_to_sources}=./>)
  # After the flags of the build type, which these take back. Lines for a backtrace are all that is wanted of symbols.
  target_compile_options(sorvex_test_settings INTERFACE -O0 -g1)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # A cache that looks at preprocessed text has to see where the precompiled header comes in.
    target_compile_options(sorvex_test_settings INTERFACE -fpch-preprocess)
  endif()
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    # This compiler takes correct string code for overlapping copies when it optimises fully.
    target_compile_options(sorvex_common_settings INTERFACE -Wno-restrict)
  endif()
  if(WIN32)
    # The time of linking would make every build another binary.
    target_link_options(sorvex_common_settings INTERFACE
      -Wl,--dynamicbase,--high-entropy-va,--nxcompat,--no-insert-timestamp $<$<CONFIG:Release>:-s>)
  endif()
  if(SORVEX_SANITIZE)
    target_compile_options(sorvex_common_settings INTERFACE
      -fsanitize=${SORVEX_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all
      # A report names lines and nothing else.
      -g1)
    target_link_options(sorvex_common_settings INTERFACE -fsanitize=${SORVEX_SANITIZE})
    if(SORVEX_SANITIZE MATCHES "undefined")
      # Looking for undefined behaviour of the tests themselves would nearly double the time they take to compile.
      target_compile_options(sorvex_test_settings INTERFACE -fno-sanitize=undefined)
    endif()
    if(SORVEX_SANITIZE MATCHES "thread")
      # GCC's thread sanitizer does not know the fence that Asio would put around handlers.
      target_compile_definitions(sorvex_common_settings INTERFACE BOOST_ASIO_DISABLE_FENCED_BLOCK)
    endif()
  endif()
  if(CMAKE_BUILD_TYPE MATCHES "Release|RelWithDebInfo" AND NOT SORVEX_SANITIZE)
    target_compile_options(sorvex_settings INTERFACE -fstack-protector-strong)
    target_compile_definitions(sorvex_settings INTERFACE _FORTIFY_SOURCE=2)
    if(WIN32)
      # The protector's and the fortified functions' library; tests link objects that want it.
      target_link_options(sorvex_common_settings INTERFACE -fstack-protector-strong)
    else()
      target_compile_options(sorvex_settings INTERFACE -fstack-clash-protection -fcf-protection)
      target_link_options(sorvex_settings INTERFACE -Wl,-z,relro,-z,now -Wl,-z,noexecstack)
    endif()
  endif()
endif()
