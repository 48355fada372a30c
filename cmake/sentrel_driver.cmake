# Building and checking Windows x64 kernel drivers (the `windows` preset, cmake/windows-toolchain.cmake).
#
#   sentrel_add_driver(<target>
#       [OUTPUT_NAME <name>]        # file name without suffix; default <target>; the file is <name>.sys
#       SOURCES <src>...
#       [INCLUDES <dir>...]
#       [DEFINITIONS <def>...]
#       [LINK_LIBRARIES <lib>...]   # extra static libraries or import libraries
#       [LINKER lld|bfd]            # default lld
#       [FORCE_INTEGRITY]           # set FORCE_INTEGRITY in the image (and check it)
#       [IMPORT_VERSIONS <table>]   # check every import against the table of first Windows versions:
#                                   # none may be newer than SENTREL_OLDEST_WINDOWS (7)
#       [EXPECT_FAILURE])           # a deliberately bad driver: link it, but skip the post-build check
#
# The driver is linked with a map file next to it (<name>.sys.map, also in the target property
# SENTREL_MAP_FILE). POST_BUILD steps then write the PE checksum (lld leaves it 0; GNU ld writes it
# itself) and run `pe_tool.py check`, so the build fails on a driver that could not load or would
# misbehave. A rejected image is moved to <name>.sys.rejected for inspection; there is no <name>.sys
# until the driver passes.
#
#   sentrel_driver_target_options(<target>)
#       Gives another target (a static library linked into the driver) the driver's compile flags.
#
#   sentrel_add_driver_check_test(<test name> DRIVER <target> [EXPECT_FAILED <check>...])
#       ctest test that runs `pe_tool.py check` on the driver. Without EXPECT_FAILED the check must
#       pass; with it, pe_tool.py must reject the driver and the checks it reports as failed must be
#       exactly the ones listed (so a driver rejected for the wrong reason does not count).
#
#   sentrel_add_checksum_roundtrip_test(<test name> DRIVER <target>)
#       ctest test that recomputes the checksum of a copy of the driver and requires the copy to be
#       byte-for-byte identical to the driver.
#
# The last two run this file in script mode (cmake -P), see the end of the file.

if(NOT CMAKE_SCRIPT_MODE_FILE)

set(SENTREL_PE_TOOL "${CMAKE_CURRENT_LIST_DIR}/pe_tool.py" CACHE FILEPATH "Post-link checker for the driver")
set(SENTREL_DRIVER_ALLOWED_DLLS ntoskrnl.exe HAL.dll ksecdd.sys
    CACHE STRING "The only DLLs a driver may import from")
set(SENTREL_OLDEST_WINDOWS 7 CACHE STRING "The oldest Windows our drivers must load on (pe_tool.py's version names)")
find_package(Python3 REQUIRED COMPONENTS Interpreter)

# The settings live in a macro rather than in directory variables, so that the functions work the
# same from any directory, whichever directory included this file.
macro(_sentrel_driver_settings)
  if(NOT DEFINED SENTREL_MINGW_ROOT)
    set(SENTREL_MINGW_ROOT /usr/x86_64-w64-mingw32)
  endif()
  set(SENTREL_DRIVER_COMPILE_OPTIONS
      -ffreestanding -fno-exceptions -fno-stack-protector -fno-builtin -fms-extensions -funwind-tables
      $<$<COMPILE_LANGUAGE:CXX>:-fno-rtti> $<$<COMPILE_LANGUAGE:CXX>:-fno-threadsafe-statics>
      $<$<COMPILE_LANGUAGE:CXX>:-fno-use-cxa-atexit>
      -Wno-pragma-pack)
  set(SENTREL_DRIVER_DEFINITIONS
      _AMD64_ NTDDI_VERSION=0x0A000000 _WIN32_WINNT=0x0A00
      __INTRINSIC_DEFINED_InterlockedBitTestAndSet __INTRINSIC_DEFINED_InterlockedBitTestAndReset)
  set(SENTREL_DRIVER_LINK_OPTIONS
      -nostdlib -Wl,--subsystem,native -Wl,--entry,DriverEntry -Wl,--dynamicbase -Wl,--nxcompat
      -Wl,--disable-auto-import -Wl,--disable-runtime-pseudo-reloc)
  set(SENTREL_DRIVER_LIBRARIES ntoskrnl hal ksecdd)
  set(_SENTREL_DRIVER_CMAKE "${CMAKE_CURRENT_FUNCTION_LIST_FILE}")
endmacro()

# Compiles <target> (the driver, or a static library that goes into it) for the kernel: the driver
# compile flags, C++17, the DDK headers.
function(sentrel_driver_target_options target)
  _sentrel_driver_settings()
  set_target_properties(${target} PROPERTIES
    CXX_STANDARD 17
    CXX_STANDARD_REQUIRED ON
    CXX_EXTENSIONS OFF)
  target_compile_options(${target} PRIVATE ${SENTREL_DRIVER_COMPILE_OPTIONS} ${SENTREL_WARNINGS})
  target_compile_definitions(${target} PRIVATE ${SENTREL_DRIVER_DEFINITIONS})
  # The DDK headers do not build warning-free; -isystem keeps their warnings out of ours. They still
  # come before the mingw-w64 user-mode headers.
  target_include_directories(${target} SYSTEM PRIVATE ${SENTREL_MINGW_ROOT}/include/ddk)
endfunction()

function(sentrel_add_driver target)
  _sentrel_driver_settings()
  cmake_parse_arguments(PARSE_ARGV 1 arg "EXPECT_FAILURE;FORCE_INTEGRITY" "OUTPUT_NAME;LINKER;IMPORT_VERSIONS"
                        "SOURCES;INCLUDES;DEFINITIONS;LINK_LIBRARIES")
  if(arg_UNPARSED_ARGUMENTS)
    message(FATAL_ERROR "sentrel_add_driver(${target}): unexpected arguments ${arg_UNPARSED_ARGUMENTS}")
  endif()
  if(NOT arg_SOURCES)
    message(FATAL_ERROR "sentrel_add_driver(${target}): no SOURCES")
  endif()
  if(NOT CMAKE_CXX_COMPILER_TARGET MATCHES "mingw32" AND NOT CMAKE_CXX_COMPILER MATCHES "mingw32")
    message(FATAL_ERROR "sentrel_add_driver(${target}): needs the windows toolchain "
                        "(-DCMAKE_TOOLCHAIN_FILE=cmake/windows-toolchain.cmake)")
  endif()
  foreach(lang C CXX)
    if(CMAKE_${lang}_STANDARD_LIBRARIES)
      message(FATAL_ERROR "sentrel_add_driver(${target}): CMAKE_${lang}_STANDARD_LIBRARIES would link "
                          "'${CMAKE_${lang}_STANDARD_LIBRARIES}' into the driver; cmake/windows-toolchain.cmake "
                          "clears it (configure a fresh build directory with it)")
    endif()
  endforeach()
  if(NOT arg_OUTPUT_NAME)
    set(arg_OUTPUT_NAME ${target})
  endif()
  if(NOT arg_LINKER)
    set(arg_LINKER lld)
  endif()
  if(NOT arg_LINKER MATCHES "^(lld|bfd)$")
    message(FATAL_ERROR "sentrel_add_driver(${target}): LINKER must be lld or bfd, not ${arg_LINKER}")
  endif()

  add_executable(${target} ${arg_SOURCES})
  set_target_properties(${target} PROPERTIES
    OUTPUT_NAME ${arg_OUTPUT_NAME}
    SUFFIX .sys
    ENABLE_EXPORTS OFF
    WIN32_EXECUTABLE OFF)  # no -mwindows
  sentrel_driver_target_options(${target})
  target_compile_definitions(${target} PRIVATE ${arg_DEFINITIONS})
  target_include_directories(${target} PRIVATE ${arg_INCLUDES})

  set(out_dir "${CMAKE_CURRENT_BINARY_DIR}")
  if(CMAKE_RUNTIME_OUTPUT_DIRECTORY)
    set(out_dir "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}")
  endif()
  set_target_properties(${target} PROPERTIES RUNTIME_OUTPUT_DIRECTORY "${out_dir}")
  set(map_file "${out_dir}/${arg_OUTPUT_NAME}.sys.map")
  set_target_properties(${target} PROPERTIES SENTREL_MAP_FILE "${map_file}")

  target_link_options(${target} PRIVATE -fuse-ld=${arg_LINKER} ${SENTREL_DRIVER_LINK_OPTIONS}
                      "-Wl,-Map,${map_file}")
  target_link_libraries(${target} PRIVATE ${arg_LINK_LIBRARIES} ${SENTREL_DRIVER_LIBRARIES})

  set(allow)
  foreach(dll IN LISTS SENTREL_DRIVER_ALLOWED_DLLS)
    list(APPEND allow --allow-dll ${dll})
  endforeach()
  set(integrity_flag)
  if(arg_FORCE_INTEGRITY)
    set(integrity_flag --force-integrity)
    list(APPEND allow --require-integrity)
  endif()
  if(arg_IMPORT_VERSIONS)
    list(APPEND allow --import-versions ${arg_IMPORT_VERSIONS} --oldest-windows ${SENTREL_OLDEST_WINDOWS})
    set_property(TARGET ${target} APPEND PROPERTY LINK_DEPENDS ${arg_IMPORT_VERSIONS})
  endif()
  set_target_properties(${target} PROPERTIES SENTREL_ALLOWED_DLL_ARGS "${allow}")

  set(post)
  if(arg_LINKER STREQUAL "lld")
    # GNU ld writes the checksum itself; keeping its value lets the check compare against it.
    list(APPEND post COMMAND "${Python3_EXECUTABLE}" "${SENTREL_PE_TOOL}" checksum "$<TARGET_FILE:${target}>"
                             ${integrity_flag})
  endif()
  if(NOT arg_EXPECT_FAILURE)
    list(APPEND post COMMAND "${Python3_EXECUTABLE}" "${SENTREL_PE_TOOL}" check "$<TARGET_FILE:${target}>"
                             --map "${map_file}" ${allow} --reject-to "$<TARGET_FILE:${target}>.rejected")
  endif()
  if(post)
    add_custom_command(TARGET ${target} POST_BUILD ${post} VERBATIM)
  endif()
endfunction()

function(sentrel_add_driver_check_test name)
  _sentrel_driver_settings()
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "DRIVER" "EXPECT_FAILED")
  if(NOT arg_DRIVER)
    message(FATAL_ERROR "sentrel_add_driver_check_test(${name}): DRIVER is required")
  endif()
  get_target_property(map_file ${arg_DRIVER} SENTREL_MAP_FILE)
  get_target_property(allow ${arg_DRIVER} SENTREL_ALLOWED_DLL_ARGS)
  string(REPLACE ";" "," allow "${allow}")
  string(REPLACE ";" "," expect "${arg_EXPECT_FAILED}")
  add_test(NAME ${name}
           COMMAND "${CMAKE_COMMAND}" -DSENTREL_TEST=check
                   "-DPYTHON=${Python3_EXECUTABLE}" "-DPE_TOOL=${SENTREL_PE_TOOL}"
                   "-DDRIVER=$<TARGET_FILE:${arg_DRIVER}>" "-DMAP=${map_file}"
                   "-DALLOW=${allow}" "-DEXPECT_FAILED=${expect}"
                   -P "${_SENTREL_DRIVER_CMAKE}")
endfunction()

function(sentrel_add_checksum_roundtrip_test name)
  _sentrel_driver_settings()
  cmake_parse_arguments(PARSE_ARGV 1 arg "" "DRIVER" "")
  add_test(NAME ${name}
           COMMAND "${CMAKE_COMMAND}" -DSENTREL_TEST=checksum_roundtrip
                   "-DPYTHON=${Python3_EXECUTABLE}" "-DPE_TOOL=${SENTREL_PE_TOOL}"
                   "-DDRIVER=$<TARGET_FILE:${arg_DRIVER}>"
                   "-DWORK=${CMAKE_CURRENT_BINARY_DIR}/${name}.sys"
                   -P "${_SENTREL_DRIVER_CMAKE}")
endfunction()

else() # script mode: the ctest tests registered above

if(SENTREL_TEST STREQUAL "check")
  string(REPLACE "," ";" allow "${ALLOW}")
  execute_process(COMMAND "${PYTHON}" "${PE_TOOL}" check "${DRIVER}" --map "${MAP}" ${allow}
                  RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
  message("${out}${err}")
  if(EXPECT_FAILED STREQUAL "")
    if(NOT rc EQUAL 0)
      message(FATAL_ERROR "pe_tool.py check rejected ${DRIVER} (exit ${rc})")
    endif()
    return()
  endif()
  if(NOT rc EQUAL 1)
    message(FATAL_ERROR "expected pe_tool.py check to reject ${DRIVER} (exit 1), got exit ${rc}")
  endif()
  # The summary line names the failed checks: "<file>: N check(s) failed: a, b".
  if(NOT out MATCHES "check[s]? failed: ([^\n]*)")
    message(FATAL_ERROR "pe_tool.py check printed no summary of failed checks")
  endif()
  string(REPLACE ", " ";" failed "${CMAKE_MATCH_1}")
  string(REPLACE "," ";" expected "${EXPECT_FAILED}")
  list(SORT failed)
  list(SORT expected)
  if(NOT failed STREQUAL expected)
    message(FATAL_ERROR "expected exactly [${expected}] to fail, but [${failed}] failed")
  endif()
elseif(SENTREL_TEST STREQUAL "checksum_roundtrip")
  file(COPY_FILE "${DRIVER}" "${WORK}")
  execute_process(COMMAND "${PYTHON}" "${PE_TOOL}" checksum "${WORK}" RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "pe_tool.py checksum failed on ${WORK}")
  endif()
  execute_process(COMMAND "${CMAKE_COMMAND}" -E compare_files "${DRIVER}" "${WORK}" RESULT_VARIABLE differ)
  if(differ)
    message(FATAL_ERROR "recomputing the checksum of ${DRIVER} changed the file")
  endif()
else()
  message(FATAL_ERROR "sentrel_driver.cmake: unknown SENTREL_TEST '${SENTREL_TEST}'")
endif()

endif()
