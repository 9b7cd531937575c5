# Builds the plugin of the type table with CXX and FLAGS against the library (two translation units, hidden
# visibility), then runs the program (built with this build's compiler) with it. With REFUSED, first checks
# that CXX refuses to compile each call of a non-plain value type, with the board's message.
if(SKIP)
  message("skipped: ${SKIP}")
  return()
elseif(NOT CXX)
  message("skipped: no second C++ compiler was found")
  return()
endif()
separate_arguments(flags UNIX_COMMAND "${FLAGS}")
set(includes -I${TESTS_DIR} -I${INCLUDE_DIR} -I${GENERATED_INCLUDE_DIR})
if(REFUSED)
  foreach(call [[update<const std::string&>("t", {})]] [[get<int&>("t")]] [[subscribe<const int>("t", {})]]
               [[notify<volatile bool>("t", flag)]] [[notify("t", "deduced as an array")]])
    execute_process(COMMAND ${CXX} -std=c++17 -fsyntax-only "-DCALL=${call}" ${includes}
                            ${TESTS_DIR}/cross/refused_value_type.cpp RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
    if(rc EQUAL 0 OR NOT out MATCHES "plain object type")
      message(FATAL_ERROR "${CXX} compiles ${call}, or refuses it without saying why:\n${out}")
    endif()
  endforeach()
endif()
set(plugin ${WORK_DIR}/cross_plugin${SUFFIX}.so)
file(MAKE_DIRECTORY ${WORK_DIR})
execute_process(COMMAND ${CXX} -std=c++17 -shared -fPIC -fvisibility=hidden ${flags} ${includes} ${TESTS_DIR}/cross/cross_plugin.cpp
                        ${TESTS_DIR}/cross/cross_second.cpp ${LIBRARY} -o ${plugin}
                RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "the plugin does not build with ${CXX} ${FLAGS}:\n${out}")
endif()
set(rtti rtti)
if(FLAGS MATCHES "-fno-rtti")
  set(rtti no-rtti)
endif()
execute_process(COMMAND ${PROGRAM} ${plugin} ${rtti} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
message("${out}")
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "the board judged some rows of the type table wrongly (exit ${rc})")
endif()
