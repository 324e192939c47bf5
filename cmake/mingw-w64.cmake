# Cross-compiling for 64-bit Windows with Debian's MinGW-w64 (the posix
# thread model, so std::thread and std::mutex work):
#   cmake -S . -B build-windows -DCMAKE_TOOLCHAIN_FILE=cmake/mingw-w64.cmake
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(ZAN_MINGW_TRIPLE x86_64-w64-mingw32 CACHE STRING "Target triple of the MinGW-w64 tools")
set(CMAKE_C_COMPILER ${ZAN_MINGW_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${ZAN_MINGW_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${ZAN_MINGW_TRIPLE}-windres)

# Libraries and headers of the target only; programs of the build machine.
set(CMAKE_FIND_ROOT_PATH /usr/${ZAN_MINGW_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
