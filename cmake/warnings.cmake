# Warning options shared by every target of ours.
# Pool tags are multi-character constants by convention.
set(SENTREL_WARNINGS -Wall -Wextra -Wno-unused-parameter -Wno-missing-field-initializers -Wno-multichar)
if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
  list(APPEND SENTREL_WARNINGS -Wno-pragma-pack -Wno-microsoft-anon-tag -Wno-unknown-pragmas)
endif()
