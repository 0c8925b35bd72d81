# tq_warnings(<target>): this project's warnings, as errors where TQ_WERROR is on. They are private
# to the target: a project that builds us as a dependency keeps its own.
function(tq_warnings target)
  if(MSVC)
    target_compile_options(${target} PRIVATE /W4 $<$<BOOL:${TQ_WERROR}>:/WX>)
    return()
  endif()
  target_compile_options(${target} PRIVATE
    -Wall -Wextra -Wshadow -Wconversion
    # Clang checks the lock annotations; other compilers do not know them.
    $<$<COMPILE_LANG_AND_ID:CXX,Clang>:-Wthread-safety>
    $<$<BOOL:${TQ_WERROR}>:-Werror>)
endfunction()
