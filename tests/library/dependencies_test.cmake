# What the built library asks of the process that loads it: nothing but the C and C++ runtime, and
# no flag or symbol that would keep it in memory after dlclose.
#
#   cmake -D LIBRARY=... -D READELF=... -D SONAME=... [-D ALSO=regex] -P dependencies_test.cmake
#
# ALSO matches what a sanitizer build needs besides.
cmake_minimum_required(VERSION 3.25)

execute_process(COMMAND "${READELF}" -dW "${LIBRARY}"
                OUTPUT_VARIABLE dynamic COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "\\(NEEDED\\)[^\n]*" needed "${dynamic}")
if(NOT needed)
  message(FATAL_ERROR "no NEEDED entry found; is ${LIBRARY} a shared library?")
endif()
foreach(entry IN LISTS needed)
  string(REGEX REPLACE ".*\\[(.*)\\].*" "\\1" name "${entry}")
  if(name MATCHES "^(libc|libm|libstdc\\+\\+|libgcc_s|ld-linux[-a-z0-9_]*)\\.so\\.[0-9]+$")
    continue()
  endif()
  if(ALSO AND name MATCHES "${ALSO}")
    continue()
  endif()
  message(SEND_ERROR "the library needs ${name}")
endforeach()

string(FIND "${dynamic}" "Library soname: [${SONAME}]" found)
if(found EQUAL -1)
  message(SEND_ERROR "the library's SONAME is not ${SONAME}")
endif()
if(dynamic MATCHES "NODELETE")
  message(SEND_ERROR "the library is linked so that dlclose does not unload it")
endif()
if(dynamic MATCHES "\\((RPATH|RUNPATH|TEXTREL)\\)")
  message(SEND_ERROR "the library carries ${CMAKE_MATCH_1}")
endif()

execute_process(COMMAND "${READELF}" -sW "${LIBRARY}"
                OUTPUT_VARIABLE symbols COMMAND_ERROR_IS_FATAL ANY)
if(NOT symbols MATCHES " FUNC ")
  message(FATAL_ERROR "no symbol table found")
endif()
string(REGEX MATCHALL "[^\n]* UNIQUE [^\n]*" unique "${symbols}")
foreach(symbol IN LISTS unique)
  message(SEND_ERROR "unique symbol, which keeps the library loaded: ${symbol}")
endforeach()
