# Cross-builds for 64-bit Windows with Debian's MinGW-w64 (posix thread flavour, package
# g++-mingw-w64-x86-64-posix) and runs the results with Wine.
#
#   cmake -S . -B build/windows -G Ninja \
#     -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake \
#     -DQUILL_WINDOWS_PREFIX="$(scripts/setup-windows --print-prefix)"
#
# QUILL_WINDOWS_PREFIX is where scripts/setup-windows installed the Windows builds of our
# dependencies (DLLs in bin/, import libraries, CMake packages and .pc files in lib/). It can
# also come from the environment variable of the same name.
#
# Programs linked this way need the MinGW runtime DLLs (libstdc++-6, libgcc_s_seh-1,
# libwinpthread-1) and the prefix's DLLs at run time: nothing here links them statically.
# QUILL_WINDOWS_WINEPATH lists those directories in the form WINEPATH wants; to put it in a
# test's ENVIRONMENT property, escape its ';' first (string(REPLACE ";" "\\;" ...)), or the
# property splits it into separate entries.

set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(QUILL_WINDOWS_TRIPLET x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${QUILL_WINDOWS_TRIPLET}-gcc-posix)
set(CMAKE_CXX_COMPILER ${QUILL_WINDOWS_TRIPLET}-g++-posix)
set(CMAKE_RC_COMPILER ${QUILL_WINDOWS_TRIPLET}-windres)

if(NOT QUILL_WINDOWS_PREFIX AND DEFINED ENV{QUILL_WINDOWS_PREFIX})
  set(QUILL_WINDOWS_PREFIX "$ENV{QUILL_WINDOWS_PREFIX}")
endif()
set(QUILL_WINDOWS_PREFIX "${QUILL_WINDOWS_PREFIX}" CACHE PATH
    "Prefix holding the Windows builds of the dependencies (scripts/setup-windows --print-prefix)")
# try_compile() projects read this file again but see only the variables listed here.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES QUILL_WINDOWS_PREFIX)

set(CMAKE_FIND_ROOT_PATH /usr/${QUILL_WINDOWS_TRIPLET})
if(QUILL_WINDOWS_PREFIX)
  list(APPEND CMAKE_FIND_ROOT_PATH "${QUILL_WINDOWS_PREFIX}")
  list(APPEND CMAKE_PREFIX_PATH "${QUILL_WINDOWS_PREFIX}")
endif()
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# pkg-config: the cross wrapper from mingw-w64-tools looks only in the MinGW sysroot, never in the
# host's directories; FindPkgConfig adds the prefix's lib/pkgconfig from CMAKE_PREFIX_PATH.
find_program(QUILL_WINDOWS_PKG_CONFIG NAMES ${QUILL_WINDOWS_TRIPLET}-pkg-config NO_CMAKE_FIND_ROOT_PATH)
if(QUILL_WINDOWS_PKG_CONFIG)
  set(PKG_CONFIG_EXECUTABLE "${QUILL_WINDOWS_PKG_CONFIG}" CACHE FILEPATH "pkg-config for the Windows target")
endif()

# Debian's wine64 package puts the loader in /usr/lib/wine and nothing in PATH.
find_program(QUILL_WINE_EXECUTABLE NAMES wine64 wine PATHS /usr/lib/wine NO_CMAKE_FIND_ROOT_PATH)
if(QUILL_WINE_EXECUTABLE)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${QUILL_WINE_EXECUTABLE}")
else()
  set(CMAKE_CROSSCOMPILING_EMULATOR wine)
endif()

# Where the DLLs a test program needs live: the prefix's bin/, GCC's runtime (libstdc++,
# libgcc_s) and the MinGW sysroot's lib/ (libwinpthread). Separated by ';' as WINEPATH wants.
execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libstdc++-6.dll
                OUTPUT_VARIABLE _quill_libstdcxx_dll OUTPUT_STRIP_TRAILING_WHITESPACE
                ERROR_QUIET RESULT_VARIABLE _quill_result)
set(QUILL_WINDOWS_WINEPATH "")
if(QUILL_WINDOWS_PREFIX)
  list(APPEND QUILL_WINDOWS_WINEPATH "${QUILL_WINDOWS_PREFIX}/bin")
endif()
if(_quill_result EQUAL 0 AND IS_ABSOLUTE "${_quill_libstdcxx_dll}")
  get_filename_component(_quill_gcc_runtime_dir "${_quill_libstdcxx_dll}" DIRECTORY)
  list(APPEND QUILL_WINDOWS_WINEPATH "${_quill_gcc_runtime_dir}")
endif()
list(APPEND QUILL_WINDOWS_WINEPATH /usr/${QUILL_WINDOWS_TRIPLET}/lib)
unset(_quill_libstdcxx_dll)
unset(_quill_result)
unset(_quill_gcc_runtime_dir)
