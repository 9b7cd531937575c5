# Builds the plugin of the cross-module test with CXX and FLAGS against the library, then runs the program
# (built with this build's compiler) with it and the log that both sides must write: EXPECT.
if(NOT CXX)
  message("skipped: no second C++ compiler was found")
  return()
endif()
separate_arguments(flags UNIX_COMMAND "${FLAGS}")
set(plugin ${WORK_DIR}/cross_plugin${SUFFIX}.so)
file(MAKE_DIRECTORY ${WORK_DIR})
execute_process(COMMAND ${CXX} -std=c++17 -shared -fPIC ${flags} -I${TESTS_DIR} -I${INCLUDE_DIR}
                        -I${GENERATED_INCLUDE_DIR} ${TESTS_DIR}/cross/cross_plugin.cpp ${LIBRARY} -o ${plugin}
                RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "the plugin does not build with ${CXX} ${FLAGS}:\n${out}")
endif()
execute_process(COMMAND ${PROGRAM} ${plugin} ${EXPECT} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
message("${out}")
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "expected on both sides: ${EXPECT}")
endif()
