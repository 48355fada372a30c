# Cross build of Sentrel.sys: clang targeting x86_64-w64-mingw32, the mingw-w64 DDK headers and
# import libraries, lld as the linker.
set(CMAKE_SYSTEM_NAME Windows)
set(CMAKE_SYSTEM_PROCESSOR AMD64)

set(SENTREL_MINGW_ROOT /usr/x86_64-w64-mingw32 CACHE PATH "mingw-w64 sysroot")
set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_RC_COMPILER llvm-rc)
set(CMAKE_C_COMPILER_TARGET x86_64-w64-mingw32)
set(CMAKE_CXX_COMPILER_TARGET x86_64-w64-mingw32)
set(CMAKE_LINKER_TYPE LLD)
set(CMAKE_EXE_LINKER_FLAGS_INIT "-fuse-ld=lld")
set(CMAKE_SHARED_LINKER_FLAGS_INIT "-fuse-ld=lld")

set(CMAKE_FIND_ROOT_PATH ${SENTREL_MINGW_ROOT})
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)

# CMake's Windows platform files would add -lkernel32 -luser32 -lgdi32 ... to every link line,
# including the driver's (-nostdlib does not remove libraries named on the command line). A kernel
# driver must not see user-mode import libraries; user-mode programs get kernel32 & co. from the
# clang mingw driver itself, and name anything else they need.
set(CMAKE_C_STANDARD_LIBRARIES "" CACHE STRING "Libraries linked by default with all C applications")
set(CMAKE_CXX_STANDARD_LIBRARIES "" CACHE STRING "Libraries linked by default with all C++ applications")

# The compiler checks would try to link a user-mode program against a C runtime; a static library
# test is enough to know that the cross compiler works.
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)
