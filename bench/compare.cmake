# lists_compare: lists beside the libraries that a user would pick instead. Nothing but the target
# bench_programs builds it; where one of those libraries is missing, that target says which.
set(TQ_COMPARE_MISSING)

find_package(Protobuf QUIET)
if(NOT Protobuf_FOUND OR NOT Protobuf_PROTOC_EXECUTABLE)
  list(APPEND TQ_COMPARE_MISSING "protobuf (libprotobuf-dev protobuf-compiler)")
endif()
find_package(CapnProto QUIET)
if(NOT CapnProto_FOUND)
  list(APPEND TQ_COMPARE_MISSING "Cap'n Proto (libcapnp-dev capnproto)")
endif()
find_package(nlohmann_json QUIET)
if(NOT nlohmann_json_FOUND)
  list(APPEND TQ_COMPARE_MISSING "nlohmann-json (nlohmann-json3-dev)")
endif()
find_path(TQ_MSGPACK_INCLUDE msgpack.hpp)
if(NOT TQ_MSGPACK_INCLUDE)
  list(APPEND TQ_COMPARE_MISSING "MessagePack for C++ (libmsgpack-cxx-dev)")
endif()
find_path(TQ_FLEXBUFFERS_INCLUDE flatbuffers/flexbuffers.h)
find_library(TQ_FLEXBUFFERS_LIBRARY flatbuffers)
if(NOT TQ_FLEXBUFFERS_INCLUDE OR NOT TQ_FLEXBUFFERS_LIBRARY)
  list(APPEND TQ_COMPARE_MISSING "FlexBuffers (libflatbuffers-dev)")
endif()
find_package(PkgConfig QUIET)
if(PkgConfig_FOUND)
  pkg_check_modules(TQ_GLIB QUIET IMPORTED_TARGET glib-2.0)
endif()
if(NOT TQ_GLIB_FOUND)
  list(APPEND TQ_COMPARE_MISSING "GVariant (libglib2.0-dev)")
endif()

if(TQ_COMPARE_MISSING)
  list(JOIN TQ_COMPARE_MISSING ", " TQ_COMPARE_MISSING)
  add_custom_target(lists_compare
    COMMAND ${CMAKE_COMMAND} -E echo
            "lists_compare cannot be built; missing: ${TQ_COMPARE_MISSING}"
    COMMAND ${CMAKE_COMMAND} -E false
    VERBATIM)
  add_dependencies(bench_programs lists_compare)
  return()
endif()

protobuf_generate_cpp(TQ_PROTO_SOURCES TQ_PROTO_HEADERS lists/order.proto)
set(CAPNPC_OUTPUT_DIR "${CMAKE_CURRENT_BINARY_DIR}")
set(CAPNPC_SRC_PREFIX "${CMAKE_CURRENT_SOURCE_DIR}/lists")
capnp_generate_cpp(TQ_CAPNP_SOURCES TQ_CAPNP_HEADERS lists/order.capnp)

# Generated sources are not held to our warnings.
add_library(compare_schemas OBJECT EXCLUDE_FROM_ALL
  ${TQ_PROTO_SOURCES} ${TQ_PROTO_HEADERS} ${TQ_CAPNP_SOURCES} ${TQ_CAPNP_HEADERS})
target_include_directories(compare_schemas SYSTEM PUBLIC "${CMAKE_CURRENT_BINARY_DIR}")
target_link_libraries(compare_schemas PUBLIC protobuf::libprotobuf CapnProto::capnp)
set_target_properties(compare_schemas PROPERTIES CXX_CLANG_TIDY "")

add_executable(lists_compare EXCLUDE_FROM_ALL
  lists/compare.cpp
  lists/tq_library.cpp
  lists/protobuf_library.cpp
  lists/capnp_library.cpp
  lists/msgpack_library.cpp
  lists/json_library.cpp
  lists/gvariant_library.cpp
  lists/flexbuffers_library.cpp)
target_include_directories(lists_compare SYSTEM PRIVATE
  "${TQ_MSGPACK_INCLUDE}" "${TQ_FLEXBUFFERS_INCLUDE}")
target_compile_definitions(lists_compare PRIVATE MSGPACK_NO_BOOST)
target_link_libraries(lists_compare PRIVATE
  tq_internal compare_schemas nlohmann_json::nlohmann_json PkgConfig::TQ_GLIB
  "${TQ_FLEXBUFFERS_LIBRARY}" benchmark::benchmark)
tq_warnings(lists_compare)
add_dependencies(bench_programs lists_compare)
