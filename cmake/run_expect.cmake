# ctest helper (cmake -P): runs COMMAND (a ;-list, passed with | between words) and requires its exit
# status to be EXPECT_EXIT and, if given, its output (stdout and stderr) to match EXPECT_OUTPUT.
string(REPLACE "|" ";" command "${COMMAND}")
execute_process(COMMAND ${command} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE err)
message("${out}${err}")
if(NOT rc STREQUAL "${EXPECT_EXIT}")
  message(FATAL_ERROR "exit status ${rc}, expected ${EXPECT_EXIT}")
endif()
if(DEFINED EXPECT_OUTPUT AND NOT "${out}${err}" MATCHES "${EXPECT_OUTPUT}")
  message(FATAL_ERROR "the output does not match: ${EXPECT_OUTPUT}")
endif()
