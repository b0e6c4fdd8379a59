# Cross-compiles for 64-bit Windows with Debian's mingw-w64 (posix thread model, so that
# std::thread exists) against the static prefix scripts/windows-deps.sh builds.
#
#   prefix=$(bash scripts/windows-deps.sh)
#   cmake -S . -B build-windows -G Ninja -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64-x86_64.cmake \
#         -DVAROFT_WINDOWS_PREFIX="$prefix"
#
# The prefix may also come from the environment (VAROFT_WINDOWS_PREFIX). Test programs run
# through wine64; scripts/wine-env.sh prepares a Wine prefix for that.

set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(VAROFT_MINGW_TRIPLE x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${VAROFT_MINGW_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${VAROFT_MINGW_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${VAROFT_MINGW_TRIPLE}-windres)

if(NOT VAROFT_WINDOWS_PREFIX AND DEFINED ENV{VAROFT_WINDOWS_PREFIX})
  set(VAROFT_WINDOWS_PREFIX "$ENV{VAROFT_WINDOWS_PREFIX}")
endif()
if(NOT VAROFT_WINDOWS_PREFIX OR NOT IS_DIRECTORY "${VAROFT_WINDOWS_PREFIX}/lib/pkgconfig")
  message(FATAL_ERROR "Set VAROFT_WINDOWS_PREFIX to the prefix scripts/windows-deps.sh prints "
                      "(now: '${VAROFT_WINDOWS_PREFIX}')")
endif()
# try_compile projects read this file again; hand them the prefix too.
set(ENV{VAROFT_WINDOWS_PREFIX} "${VAROFT_WINDOWS_PREFIX}")
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES VAROFT_WINDOWS_PREFIX)

# Libraries, headers and packages come from the prefix only; build tools from the host.
set(CMAKE_FIND_ROOT_PATH "${VAROFT_WINDOWS_PREFIX}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
set(ZLIB_USE_STATIC_LIBS ON)

# The prefix's .pc files are flattened (private requirements folded in), so plain
# `pkg-config --libs` yields a complete static link line.
set(ENV{PKG_CONFIG_LIBDIR} "${VAROFT_WINDOWS_PREFIX}/lib/pkgconfig")
set(ENV{PKG_CONFIG_PATH} "")
set(ENV{PKG_CONFIG_SYSROOT_DIR} "")

# One self-contained .exe: libstdc++, libgcc and winpthread linked in, only system DLLs imported.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")

find_program(VAROFT_WINE64 wine64 PATHS /usr/lib/wine /usr/lib64/wine NO_DEFAULT_PATH)
if(NOT VAROFT_WINE64)
  find_program(VAROFT_WINE64 wine64)
endif()
if(VAROFT_WINE64)
  set(CMAKE_CROSSCOMPILING_EMULATOR "${VAROFT_WINE64}")
endif()
