# The project's warning set, applied to every target it builds.
function(harkwell_set_warnings target)
  if(MSVC)
    target_compile_options(${target} PRIVATE /W4 $<$<BOOL:${HARKWELL_WARNINGS_AS_ERRORS}>:/WX>)
  else()
    target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow
      -Wnon-virtual-dtor -Wold-style-cast -Woverloaded-virtual
      # Designated initialisers leave defaulted members out on purpose.
      -Wno-missing-field-initializers
      # GCC 12 reports std::variant and std::optional members as maybe-uninitialized in optimised
      # builds where they are not (a known false positive of that release).
      $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>
      # GCC 12 at -O3 also reports std::string concatenation and vector growth as overlapping or
      # overflowing copies (-Wrestrict, -Wstringop-overflow) where they are not; those stay warnings
      # so that a release build with warnings as errors still builds.
      $<$<CXX_COMPILER_ID:GNU>:-Wno-error=restrict>
      $<$<CXX_COMPILER_ID:GNU>:-Wno-error=stringop-overflow>
      # Clang checks the thread-safety annotations (Platform/ThreadAnnotations.h, Platform/Mutex.h)
      # in every clang build, the fuzzers' included; a broken locking rule is always an error.
      $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>
      $<$<CXX_COMPILER_ID:Clang>:-Werror=thread-safety>
      $<$<BOOL:${HARKWELL_WARNINGS_AS_ERRORS}>:-Werror>)
  endif()
endfunction()
