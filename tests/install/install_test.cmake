# Installs the built tree, moves it, and builds and runs hosts from the moved tree alone: once over
# find_package, once over pkg-config and the plain compilers. Moving it first shows that nothing in
# the package depends on the place it was installed to.
#
#   cmake -D BUILD=... -D CONSUMER=... -D WORK=... -D VERSION=... -D GENERATOR=... -D CC=... -D CXX=...
#         -D PKG_CONFIG=... [-D FLAGS=...] -P install_test.cmake
cmake_minimum_required(VERSION 3.25)

# FLAGS are the sanitizers' flags: a program over an instrumented library has to be one, too.
separate_arguments(FLAG_LIST UNIX_COMMAND "${FLAGS}")

function(step)
  execute_process(COMMAND ${ARGV} RESULT_VARIABLE result OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT result EQUAL 0)
    list(JOIN ARGV " " command)
    message(FATAL_ERROR "${command}\nended with ${result}:\n${output}")
  endif()
endfunction()

function(expect_file path)
  if(NOT EXISTS "${path}")
    message(FATAL_ERROR "${path} is not installed")
  endif()
endfunction()

file(REMOVE_RECURSE "${WORK}")
step("${CMAKE_COMMAND}" --install "${BUILD}" --prefix "${WORK}/installed")
file(RENAME "${WORK}/installed" "${WORK}/moved")

file(GLOB_RECURSE package LIST_DIRECTORIES FALSE "${WORK}/moved/*/tqConfig.cmake")
list(LENGTH package count)
if(NOT count EQUAL 1)
  message(FATAL_ERROR "tqConfig.cmake is installed ${count} times")
endif()
cmake_path(GET package PARENT_PATH packageFolder)
cmake_path(GET packageFolder PARENT_PATH packageFolder)
cmake_path(GET packageFolder PARENT_PATH libFolder)
foreach(name libtq.so libtq.so.0 libtq.so.${VERSION} pkgconfig/tq.pc)
  expect_file("${libFolder}/${name}")
endforeach()
file(GLOB headers RELATIVE "${SOURCE}/include" "${SOURCE}/include/tq/*.h")
foreach(header IN LISTS headers)
  expect_file("${WORK}/moved/include/${header}")
endforeach()

# By find_package. The consumer must not fall back on another copy, hence the exact prefix.
step("${CMAKE_COMMAND}" -G "${GENERATOR}" -S "${CONSUMER}" -B "${WORK}/consumer"
     -D "CMAKE_PREFIX_PATH=${WORK}/moved" -D "CMAKE_FIND_USE_PACKAGE_REGISTRY=OFF"
     -D "CMAKE_C_COMPILER=${CC}" -D "CMAKE_CXX_COMPILER=${CXX}"
     -D "CMAKE_C_FLAGS=${FLAGS}" -D "CMAKE_CXX_FLAGS=${FLAGS}" -D "EXPECTED_VERSION=${VERSION}")
step("${CMAKE_COMMAND}" --build "${WORK}/consumer")
set(programs round_trip_cxx17 round_trip_cxx20 round_trip_c11)
if(EXISTS "${libFolder}/libtq.a")
  list(APPEND programs round_trip_static)
endif()
foreach(program IN LISTS programs)
  step("${WORK}/consumer/${program}")
endforeach()

# By pkg-config.
set(pkgConfig "${CMAKE_COMMAND}" -E env "PKG_CONFIG_PATH=${libFolder}/pkgconfig" "${PKG_CONFIG}")
step(${pkgConfig} --exact-version=${VERSION} tq)
execute_process(COMMAND ${pkgConfig} --cflags --libs tq OUTPUT_VARIABLE flags
                OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
string(FIND "${flags}" "${WORK}/moved" found)
if(found EQUAL -1)
  message(FATAL_ERROR "tq.pc names another place than its own: ${flags}")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
list(APPEND flags "-Wl,-rpath,${libFolder}")
step("${CXX}" -std=c++17 "${CONSUMER}/round_trip.cpp" -o "${WORK}/plain_cxx17" ${FLAG_LIST} ${flags})
step("${CXX}" -std=c++20 "${CONSUMER}/round_trip.cpp" -o "${WORK}/plain_cxx20" ${FLAG_LIST} ${flags})
step("${CC}" -std=c11 -pedantic-errors "${CONSUMER}/round_trip.c" -o "${WORK}/plain_c11"
     ${FLAG_LIST} ${flags})
set(plainPrograms plain_cxx17 plain_cxx20 plain_c11)

# The static library, by a compiler that adds no C++ runtime of its own.
if(EXISTS "${libFolder}/libtq.a")
  execute_process(COMMAND ${pkgConfig} --static --cflags --libs tq OUTPUT_VARIABLE flags
                  OUTPUT_STRIP_TRAILING_WHITESPACE COMMAND_ERROR_IS_FATAL ANY)
  separate_arguments(flags UNIX_COMMAND "${flags}")
  list(TRANSFORM flags REPLACE "^-ltq$" "${libFolder}/libtq.a")
  step("${CC}" -std=c11 "${CONSUMER}/round_trip.c" -o "${WORK}/plain_c11_static"
       ${FLAG_LIST} ${flags})
  list(APPEND plainPrograms plain_c11_static)
endif()
foreach(program IN LISTS plainPrograms)
  step("${WORK}/${program}")
endforeach()
