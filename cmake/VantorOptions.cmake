# Flags for our own targets only: warnings (as errors when VANTOR_MESSAGE_BOARD_WERROR is on), the
# sanitizers chosen by VANTOR_MESSAGE_BOARD_SANITIZE and coverage instrumentation when
# VANTOR_MESSAGE_BOARD_COVERAGE is on. Third-party code never sees them.
function(vantor_apply_options target)
  target_compile_features(${target} PRIVATE cxx_std_17)
  set_target_properties(${target} PROPERTIES CXX_EXTENSIONS OFF)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor)
  # Clang proves that every member marked as guarded by a mutex is touched only with that mutex held.
  if(CMAKE_CXX_COMPILER_ID MATCHES "Clang")
    target_compile_options(${target} PRIVATE -Wthread-safety)
  endif()
  if(VANTOR_MESSAGE_BOARD_WERROR)
    target_compile_options(${target} PRIVATE -Werror)
  endif()
  if(VANTOR_MESSAGE_BOARD_SANITIZE)
    list(JOIN VANTOR_MESSAGE_BOARD_SANITIZE "," sanitizers)
    target_compile_options(${target} PRIVATE -fsanitize=${sanitizers} -fno-omit-frame-pointer
                                             -fno-sanitize-recover=all)
    target_link_options(${target} PRIVATE -fsanitize=${sanitizers})
  endif()
  if(VANTOR_MESSAGE_BOARD_COVERAGE)
    target_compile_options(${target} PRIVATE --coverage)
    target_link_options(${target} PRIVATE --coverage)
  endif()
endfunction()
