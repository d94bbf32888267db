# Cross build for 64-bit Windows with MinGW-w64 (posix threads flavour).
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(BASEKIT64_MINGW_TRIPLE x86_64-w64-mingw32)
set(CMAKE_C_COMPILER ${BASEKIT64_MINGW_TRIPLE}-gcc-posix)
set(CMAKE_CXX_COMPILER ${BASEKIT64_MINGW_TRIPLE}-g++-posix)
set(CMAKE_RC_COMPILER ${BASEKIT64_MINGW_TRIPLE}-windres)

set(CMAKE_FIND_ROOT_PATH /usr/${BASEKIT64_MINGW_TRIPLE})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)

# Every binary carries its own runtime (libstdc++, libgcc, winpthread), so
# nothing but system DLLs has to sit beside it.
set(CMAKE_EXE_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")
set(CMAKE_MODULE_LINKER_FLAGS_INIT "-static -static-libgcc -static-libstdc++")

# Test programs run under Wine, which shows the build machine's files on
# drive Z:; paths compiled into the tests get that prefix, so that they still
# hold when a test changes to a folder on another drive.
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_CURRENT_LIST_DIR}/wine-run.sh)
set(BASEKIT64_TARGET_PATH_PREFIX Z:)
