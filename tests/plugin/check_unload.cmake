# Builds tests/plugin/slot_plugin.cpp with CXX and FLAGS against the library, then runs the host program
# (PROGRAM) with it: the host lets the plugin disconnect, unloads it and publishes again.
if(NOT CXX)
  message("skipped: no such compiler was found")
  return()
endif()
separate_arguments(flags UNIX_COMMAND "${FLAGS}")
set(plugin ${WORK_DIR}/slot_plugin${SUFFIX}.so)
file(MAKE_DIRECTORY ${WORK_DIR})
execute_process(COMMAND ${CXX} -std=c++17 -shared -fPIC -fvisibility=hidden ${flags} -I${INCLUDE_DIR}
                        -I${GENERATED_INCLUDE_DIR} ${SOURCE} ${LIBRARY} -o ${plugin}
                RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "the plugin does not build with ${CXX} ${FLAGS}:\n${out}")
endif()
execute_process(COMMAND ${PROGRAM} ${plugin} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
message("${out}")
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "publishing after the plugin was unloaded failed (${rc})")
endif()
