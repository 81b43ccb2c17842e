# Cross-building for 64-bit Windows with clang and lld. The MinGW-w64 package supplies the C++
# library's freestanding headers, the kernel's import library and, for programs, its C library.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

find_program(ZPREGFLT_CLANG NAMES clang++-14 clang++ REQUIRED)
set(CMAKE_CXX_COMPILER ${ZPREGFLT_CLANG})
set(CMAKE_CXX_COMPILER_TARGET x86_64-w64-windows-gnu)

# What is linked differs from target to target, so the compiler is tried without a linker.
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)

set(CMAKE_FIND_ROOT_PATH /usr/x86_64-w64-mingw32)
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
