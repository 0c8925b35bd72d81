# tq_read_version(<header> <variable>): sets <variable> to "major.minor.patch" as the macros
# TQ_VERSION_MAJOR, TQ_VERSION_MINOR and TQ_VERSION_PATCH in <header> say.
function(tq_read_version header variable)
  file(READ "${header}" text)
  set(parts)
  foreach(part MAJOR MINOR PATCH)
    if(NOT text MATCHES "#[ \t]*define[ \t]+TQ_VERSION_${part}[ \t]+([0-9]+)")
      message(FATAL_ERROR "${header} does not define TQ_VERSION_${part} as a number")
    endif()
    list(APPEND parts ${CMAKE_MATCH_1})
  endforeach()
  list(JOIN parts . version)
  if(NOT text MATCHES "#[ \t]*define[ \t]+TQ_VERSION_STRING[ \t]+\"${version}\"")
    message(FATAL_ERROR "${header} does not define TQ_VERSION_STRING as \"${version}\"")
  endif()
  set(${variable} ${version} PARENT_SCOPE)
  # A changed version must reach the file names of the library, so it configures again.
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${header}")
endfunction()
