# User-mode Windows programs in the `windows` build (sentrel-events.exe, the consumer library and its
# tests): clang targeting x86_64-w64-mingw32 like the driver, with the mingw-w64 C++ library.
#
# clang does not find Debian's mingw-w64 libstdc++ (it lives under /usr/lib/gcc/<triple>/<N>-posix),
# so its headers and libraries are named here. The posix flavour is the one with std::mutex and
# std::thread (through winpthreads, linked in statically). Programs link statically: the only DLLs they import
# are the system's own (KERNEL32.dll and the C runtime msvcrt.dll), which the build checks.
#
#   sentrel_user_mode_directory()
#       Compiles and links every target of the calling directory (and below) as a user-mode program.
#   sentrel_check_program_imports(<target>)
#       After each link, `pe_tool.py program` checks the image: PE32+ for AMD64, console subsystem,
#       imports only from SENTREL_PROGRAM_ALLOWED_DLLS.

file(GLOB _sentrel_mingw_gcc_dirs LIST_DIRECTORIES true /usr/lib/gcc/x86_64-w64-mingw32/*-posix)
list(SORT _sentrel_mingw_gcc_dirs COMPARE NATURAL)
list(POP_BACK _sentrel_mingw_gcc_dirs SENTREL_MINGW_GCC_DIR)
if(NOT SENTREL_MINGW_GCC_DIR OR NOT EXISTS "${SENTREL_MINGW_GCC_DIR}/libstdc++.a")
  message(FATAL_ERROR "no mingw-w64 C++ library under /usr/lib/gcc/x86_64-w64-mingw32/*-posix "
                      "(scripts/install-deps.sh installs g++-mingw-w64-x86-64-posix)")
endif()

set(SENTREL_PROGRAM_ALLOWED_DLLS KERNEL32.dll msvcrt.dll
    CACHE STRING "The only DLLs a user-mode program of ours may import from")
set(SENTREL_PE_TOOL "${CMAKE_CURRENT_LIST_DIR}/pe_tool.py" CACHE FILEPATH "Post-link checker for the driver")
find_package(Python3 REQUIRED COMPONENTS Interpreter)

# nlohmann-json is header-only; its package files live outside the mingw sysroot, and adding
# /usr/include to a Windows build would put glibc's headers before mingw-w64's, so the headers are
# copied into the build.
find_path(SENTREL_NLOHMANN_JSON_DIR nlohmann/json.hpp PATHS /usr/include NO_CMAKE_FIND_ROOT_PATH NO_DEFAULT_PATH)
if(NOT SENTREL_NLOHMANN_JSON_DIR)
  message(FATAL_ERROR "nlohmann/json.hpp not found (scripts/install-deps.sh installs nlohmann-json3-dev)")
endif()
file(COPY "${SENTREL_NLOHMANN_JSON_DIR}/nlohmann" DESTINATION "${CMAKE_BINARY_DIR}/user-mode-include")
if(NOT TARGET nlohmann_json::nlohmann_json)
  add_library(nlohmann_json::nlohmann_json INTERFACE IMPORTED GLOBAL)
  set_target_properties(nlohmann_json::nlohmann_json PROPERTIES
    INTERFACE_SYSTEM_INCLUDE_DIRECTORIES "${CMAKE_BINARY_DIR}/user-mode-include"
    INTERFACE_INCLUDE_DIRECTORIES "${CMAKE_BINARY_DIR}/user-mode-include")
endif()

macro(sentrel_user_mode_directory)
  set(CMAKE_CXX_STANDARD 17)
  set(CMAKE_CXX_STANDARD_REQUIRED ON)
  set(CMAKE_CXX_EXTENSIONS OFF)
  add_compile_options(
    $<$<COMPILE_LANGUAGE:CXX>:-nostdinc++>
    "$<$<COMPILE_LANGUAGE:CXX>:SHELL:-isystem ${SENTREL_MINGW_GCC_DIR}/include/c++>"
    "$<$<COMPILE_LANGUAGE:CXX>:SHELL:-isystem ${SENTREL_MINGW_GCC_DIR}/include/c++/x86_64-w64-mingw32>"
    "$<$<COMPILE_LANGUAGE:CXX>:SHELL:-isystem ${SENTREL_MINGW_GCC_DIR}/include/c++/backward>"
    ${SENTREL_WARNINGS})
  # Windows 7 is the oldest system Sentrel runs on: no API of a later one may slip into a program.
  add_compile_definitions(_WIN32_WINNT=0x0601 WINVER=0x0601 UNICODE _UNICODE)
  add_link_options(-fuse-ld=lld -static "-L${SENTREL_MINGW_GCC_DIR}")
  # The C++ library's threads; clang's mingw driver does not name it (lld finds it wherever it stands).
  link_libraries(winpthread)
endmacro()

function(sentrel_check_program_imports target)
  set(allow)
  foreach(dll IN LISTS SENTREL_PROGRAM_ALLOWED_DLLS)
    list(APPEND allow --allow-dll ${dll})
  endforeach()
  add_custom_command(TARGET ${target} POST_BUILD
    COMMAND "${Python3_EXECUTABLE}" "${SENTREL_PE_TOOL}" program "$<TARGET_FILE:${target}>" ${allow}
            --reject-to "$<TARGET_FILE:${target}>.rejected"
    VERBATIM)
endfunction()
