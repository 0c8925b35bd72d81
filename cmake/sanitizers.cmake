# TQ_SANITIZE applies to everything that is built here, tests and examples included: a sanitizer
# that sees only half of a process misses errors and reports false ones.
if(TQ_SANITIZE)
  list(JOIN TQ_SANITIZE "," TQ_SANITIZE_NAMES)
  # A finding ends the test, undefined behaviour too, or nobody would see it in a passing run.
  set(TQ_SANITIZE_FLAGS -fsanitize=${TQ_SANITIZE_NAMES} -fno-sanitize-recover=all
      -fno-omit-frame-pointer)
  add_compile_options(${TQ_SANITIZE_FLAGS})
  add_link_options(-fsanitize=${TQ_SANITIZE_NAMES})
endif()
