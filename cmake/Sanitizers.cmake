# -DTOLA_SANITIZE=address,undefined or thread: for the whole tree, since mixed objects report nonsense.
set(TOLA_SANITIZE "" CACHE STRING "Sanitizers for all targets, as -fsanitize takes them")
if(TOLA_SANITIZE)
  add_compile_options(-fsanitize=${TOLA_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${TOLA_SANITIZE})
endif()
