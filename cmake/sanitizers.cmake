# TQ_SANITIZE applies to everything that is built here, tests and examples included: a sanitizer
# that sees only half of a process misses errors and reports false ones.
if(TQ_SANITIZE)
  list(JOIN TQ_SANITIZE "," TQ_SANITIZE_NAMES)
  # A finding ends the test, undefined behaviour too, or nobody would see it in a passing run.
  set(TQ_SANITIZE_FLAGS -fsanitize=${TQ_SANITIZE_NAMES} -fno-sanitize-recover=all
      -fno-omit-frame-pointer)
  if("undefined" IN_LIST TQ_SANITIZE)
    # This check opens a pipe to find out whether it may read an object. In a process that has no
    # descriptor left, as some tests make it, every object then seems to be of the wrong type.
    list(APPEND TQ_SANITIZE_FLAGS -fno-sanitize=vptr)
  endif()
  add_compile_options(${TQ_SANITIZE_FLAGS})
  add_link_options(-fsanitize=${TQ_SANITIZE_NAMES})
endif()
