# SENTREL_SANITIZE is a comma-separated sanitizer list ("address,undefined", "thread" or empty).
set(SENTREL_SANITIZE "" CACHE STRING "Sanitizers for host builds")
if(SENTREL_SANITIZE)
  add_compile_options(-fsanitize=${SENTREL_SANITIZE} -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${SENTREL_SANITIZE})
  if(SENTREL_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
endif()
