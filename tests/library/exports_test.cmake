# Compares what the built library exports, versions included, with the kept list src/exports.txt,
# in both directions, and the version script with the same list.
#
#   cmake -D LIBRARY=... -D NM=... -D LIST=... -D MAP=... [-D ABSENT=...] -P exports_test.cmake
#
# ABSENT names listed symbols that the compiler in use does not emit.
cmake_minimum_required(VERSION 3.25)

function(compare actualName actual expectedName expected)
  set(unlisted ${actual})
  list(REMOVE_ITEM unlisted ${expected})
  set(missing ${expected})
  list(REMOVE_ITEM missing ${actual})
  foreach(symbol IN LISTS unlisted)
    message(SEND_ERROR "${symbol} is in ${actualName} and not in ${expectedName}")
  endforeach()
  foreach(symbol IN LISTS missing)
    message(SEND_ERROR "${symbol} is in ${expectedName} and not in ${actualName}")
  endforeach()
endfunction()

file(STRINGS "${LIST}" listed)

execute_process(COMMAND "${NM}" -D --defined-only --with-symbol-versions "${LIBRARY}"
                OUTPUT_VARIABLE output COMMAND_ERROR_IS_FATAL ANY)
string(REGEX MATCHALL "[^\n]+" lines "${output}")
set(exported)
foreach(line IN LISTS lines)
  string(REGEX REPLACE "^.* " "" symbol "${line}")
  list(APPEND exported "${symbol}")
endforeach()
if(NOT exported)
  message(FATAL_ERROR "${LIBRARY} exports nothing")
endif()

file(READ "${MAP}" map)
string(REGEX REPLACE "/\\*[^*]*\\*/" "" map "${map}")
if(NOT map MATCHES "^[ \n]*([A-Z_0-9]+) {[ \n]*global:([^:]*)local:[ \n]*\\*;[ \n]*};[ \n]*$")
  message(FATAL_ERROR "${MAP} is not one version node that hides everything it does not name")
endif()
set(node "${CMAKE_MATCH_1}")
string(REGEX MATCHALL "[^ ;\n]+" mapped "${CMAKE_MATCH_2}")
list(TRANSFORM mapped APPEND "@@${node}")
list(APPEND mapped "${node}")

compare("src/tq.map" "${mapped}" "src/exports.txt" "${listed}")
list(REMOVE_ITEM listed ${ABSENT} "")
compare("the library" "${exported}" "src/exports.txt" "${listed}")
