# Cross build of the Windows console program with MinGW-w64 (posix threads model).
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)
set(CMAKE_C_COMPILER x86_64-w64-mingw32-gcc-posix)
set(CMAKE_CXX_COMPILER x86_64-w64-mingw32-g++-posix)
set(CMAKE_RC_COMPILER x86_64-w64-mingw32-windres)
# The second holds what scripts/install-deps.sh builds for the cross build (miniupnpc).
set(CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32 /usr/local/x86_64-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
# ctest and test discovery run the Windows programs under Wine.
set(CMAKE_CROSSCOMPILING_EMULATOR wine)
