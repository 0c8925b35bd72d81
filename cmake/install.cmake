# What `cmake --install` puts where: the library with its version links, the public headers, the
# CMake package and the pkg-config file. All of it may be moved afterwards.
include(CMakePackageConfigHelpers)

set(TQ_PACKAGE_DIR "${CMAKE_INSTALL_LIBDIR}/cmake/tq")
set(TQ_INSTALL_TARGETS tq)
if(TARGET tq-static)
  list(APPEND TQ_INSTALL_TARGETS tq-static)
endif()

install(TARGETS ${TQ_INSTALL_TARGETS} EXPORT tqTargets
  RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}"
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
  ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}")
install(DIRECTORY "${PROJECT_SOURCE_DIR}/include/tq" DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}"
        FILES_MATCHING PATTERN "*.h")

install(EXPORT tqTargets NAMESPACE tq:: DESTINATION "${TQ_PACKAGE_DIR}")
configure_package_config_file("${CMAKE_CURRENT_LIST_DIR}/tqConfig.cmake.in"
  "${PROJECT_BINARY_DIR}/tqConfig.cmake" INSTALL_DESTINATION "${TQ_PACKAGE_DIR}")
# Below 1.0 a minor release may break its callers.
write_basic_package_version_file("${PROJECT_BINARY_DIR}/tqConfigVersion.cmake"
  COMPATIBILITY SameMinorVersion)
install(FILES "${PROJECT_BINARY_DIR}/tqConfig.cmake" "${PROJECT_BINARY_DIR}/tqConfigVersion.cmake"
        DESTINATION "${TQ_PACKAGE_DIR}")

# The pkg-config file finds its prefix from its own place, unless the folders were given as absolute
# paths, in which case there is no common prefix to find.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}" OR IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  set(TQ_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
  set(TQ_PC_INCLUDEDIR "${CMAKE_INSTALL_FULL_INCLUDEDIR}")
  set(TQ_PC_LIBDIR "${CMAKE_INSTALL_FULL_LIBDIR}")
else()
  file(RELATIVE_PATH TQ_PC_UP "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
  string(REGEX REPLACE "/$" "" TQ_PC_UP "${TQ_PC_UP}")
  set(TQ_PC_PREFIX "\${pcfiledir}/${TQ_PC_UP}")
  set(TQ_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
  set(TQ_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
endif()

# A C host of the static library links the C++ runtime, which its own compiler does not add.
set(TQ_PC_LIBS ${CMAKE_CXX_IMPLICIT_LINK_LIBRARIES})
list(REMOVE_ITEM TQ_PC_LIBS ${CMAKE_C_IMPLICIT_LINK_LIBRARIES})
list(TRANSFORM TQ_PC_LIBS PREPEND "-l")
list(APPEND TQ_PC_LIBS ${CMAKE_THREAD_LIBS_INIT})
list(JOIN TQ_PC_LIBS " " TQ_PC_LIBS_PRIVATE)
configure_file("${CMAKE_CURRENT_LIST_DIR}/tq.pc.in" "${PROJECT_BINARY_DIR}/tq.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/tq.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
