# The README's program is examples/hello/hello.cpp, which is built with everything else.
#
#   cmake -D README=... -D PROGRAM=... -P readme_test.cmake
cmake_minimum_required(VERSION 3.25)

file(READ "${README}" readme)
file(READ "${PROGRAM}" program)
string(FIND "${readme}" "```cpp\n${program}```\n" found)
if(found EQUAL -1)
  message(FATAL_ERROR "${README} does not quote ${PROGRAM} as it is")
endif()
