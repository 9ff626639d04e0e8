# Settings that every target of the project shares, and the interface target `sorvex_settings` that carries them.

set(CMAKE_CXX_STANDARD 20)
set(CMAKE_CXX_STANDARD_REQUIRED ON)
set(CMAKE_CXX_EXTENSIONS OFF)
set(CMAKE_POSITION_INDEPENDENT_CODE ON)
set(CMAKE_CXX_VISIBILITY_PRESET hidden)
set(CMAKE_VISIBILITY_INLINES_HIDDEN ON)
set(CMAKE_EXPORT_COMPILE_COMMANDS ON)
# No binary contains the name of the build folder.
set(CMAKE_BUILD_RPATH_USE_ORIGIN ON)
set(CMAKE_RUNTIME_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/bin")
set(CMAKE_LIBRARY_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/bin")
set(CMAKE_ARCHIVE_OUTPUT_DIRECTORY "${CMAKE_BINARY_DIR}/lib")
if(NOT CMAKE_BUILD_TYPE)
  set(CMAKE_BUILD_TYPE RelWithDebInfo)
endif()

# The platform whose implementation src/platform and host/platform use.
if(WIN32)
  set(SORVEX_PLATFORM windows)
  # Our libraries have the names under which callers load them, whatever the compiler's habit.
  set(CMAKE_SHARED_LIBRARY_PREFIX "")
  set(CMAKE_SHARED_MODULE_PREFIX "")
else()
  set(SORVEX_PLATFORM posix)
endif()

find_program(CCACHE ccache)
if(CCACHE)
  # A clone in another folder reuses what this one has compiled, and precompiled headers are cached. What a file includes
  # is taken from the compiler's list: preprocessing the file to find out takes a tenth of the time of compiling it.
  set(CMAKE_CXX_COMPILER_LAUNCHER "${CMAKE_COMMAND}" -E env
    "CCACHE_BASEDIR=${CMAKE_SOURCE_DIR}" CCACHE_DEPEND=1 CCACHE_NOHASHDIR=1 CCACHE_SLOPPINESS=pch_defines,time_macros
    "${CCACHE}")
endif()

# Compiler and linker settings for everything.
add_library(sorvex_common_settings INTERFACE)
# Of the settings for file names the compiler takes the last that fits, so these follow the common ones.
add_library(sorvex_file_names INTERFACE)
# What ships is also hardened.
add_library(sorvex_settings INTERFACE)
target_link_libraries(sorvex_settings INTERFACE sorvex_common_settings sorvex_file_names)
# Tests are compiled as fast as possible: the code that they measure is compiled as it ships.
add_library(sorvex_test_settings INTERFACE)
target_link_libraries(sorvex_test_settings INTERFACE sorvex_common_settings)
if(MSVC)
  target_compile_options(sorvex_common_settings INTERFACE /W4 /WX /utf-8 /permissive-)
else()
  target_compile_options(sorvex_common_settings INTERFACE
    -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Wnon-virtual-dtor -Woverloaded-virtual -Wold-style-cast -Werror
    # Builds are reproducible in any folder.
    -ffile-prefix-map=${CMAKE_SOURCE_DIR}=.)
  # The compiler cache passes source paths relative to the build folder, and hands out in one build folder what was
  # compiled in another: what ships has the same file names in it in any case. (The cache ignores these values: changing
  # them needs an empty cache.)
  file(RELATIVE_PATH path_to_sources "${CMAKE_BINARY_DIR}" "${CMAKE_SOURCE_DIR}")
  target_compile_options(sorvex_file_names INTERFACE
    -ffile-prefix-map=${path_to_sources}=./ -fdebug-prefix-map=${CMAKE_BINARY_DIR}=./build)
  # After the flags of the build type, which these override. The only symbols needed are lines for backtraces.
  target_compile_options(sorvex_test_settings INTERFACE -O0 -g1)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    # The compiler would look through the whole precompiled header for memory to free, again and again.
    target_compile_options(sorvex_test_settings INTERFACE
      "SHELL:--param ggc-min-expand=300" "SHELL:--param ggc-min-heapsize=500000")
  endif()
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    # When it optimises fully, this compiler takes correct string code for overlapping copies.
    target_compile_options(sorvex_common_settings INTERFACE -Wno-restrict)
  endif()
  if(WIN32)
    # The link time would make every build a different binary.
    target_link_options(sorvex_common_settings INTERFACE
      -Wl,--dynamicbase,--high-entropy-va,--nxcompat,--no-insert-timestamp $<$<CONFIG:Release>:-s>)
  endif()
  if(SORVEX_SANITIZE)
    # Looking for undefined behaviour of the tests themselves would nearly double the time they take to compile.
    string(REGEX REPLACE ",?undefined" "" test_sanitizers "${SORVEX_SANITIZE}")
    target_compile_options(sorvex_settings INTERFACE -fsanitize=${SORVEX_SANITIZE})
    target_compile_options(sorvex_test_settings INTERFACE $<$<BOOL:${test_sanitizers}>:-fsanitize=${test_sanitizers}>)
    # A report needs only line numbers.
    target_compile_options(sorvex_common_settings INTERFACE -fno-omit-frame-pointer -fno-sanitize-recover=all -g1)
    target_link_options(sorvex_common_settings INTERFACE -fsanitize=${SORVEX_SANITIZE})
    if(SORVEX_SANITIZE MATCHES "thread")
      # GCC's thread sanitizer does not support the fence that Asio would put around handlers.
      target_compile_definitions(sorvex_common_settings INTERFACE BOOST_ASIO_DISABLE_FENCED_BLOCK)
    endif()
  endif()
  if(CMAKE_BUILD_TYPE MATCHES "Release|RelWithDebInfo" AND NOT SORVEX_SANITIZE)
    # Against -O2, -O3 makes producers that share a queue a fifth faster (script/bench-queue).
    target_compile_options(sorvex_settings INTERFACE -O3 -fstack-protector-strong)
    target_compile_definitions(sorvex_settings INTERFACE _FORTIFY_SOURCE=2)
    if(WIN32)
      # The library of the stack protector and the fortified functions; tests link objects that need it.
      target_link_options(sorvex_common_settings INTERFACE -fstack-protector-strong)
    else()
      target_compile_options(sorvex_settings INTERFACE -fstack-clash-protection -fcf-protection)
      target_link_options(sorvex_settings INTERFACE -Wl,-z,relro,-z,now -Wl,-z,noexecstack)
    endif()
  endif()
endif()
