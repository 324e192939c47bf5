# Cross build for 64-bit Windows with Debian's MinGW-w64 (the posix thread
# model, package g++-mingw-w64-x86-64-posix). Executables and plugin DLLs link
# libstdc++, libgcc and winpthreads statically, so they run on a bare Windows.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(ZAN_MINGW_PREFIX x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${ZAN_MINGW_PREFIX}-gcc-posix)
set(CMAKE_CXX_COMPILER ${ZAN_MINGW_PREFIX}-g++-posix)
set(CMAKE_RC_COMPILER ${ZAN_MINGW_PREFIX}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${ZAN_MINGW_PREFIX})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

set(CMAKE_EXE_LINKER_FLAGS_INIT "-static")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-static")

# Tests built for Windows run here under wine: ctest puts this in front of
# every test program.
find_program(ZAN_WINE NAMES wine64 wine PATHS /usr/lib/wine NO_DEFAULT_PATH)
find_program(ZAN_WINE NAMES wine64 wine)
if(ZAN_WINE)
  set(CMAKE_CROSSCOMPILING_EMULATOR ${ZAN_WINE})
endif()
