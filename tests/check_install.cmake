# Installs the build tree into a scratch prefix, then builds and runs a consumer against it twice:
# through find_package() and through pkg-config. The consumer is the example of a host's own contract,
# which prints the version of the headers it was built with first: both must be VERSION.
function(run)
  execute_process(COMMAND ${ARGV} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT rc EQUAL 0)
    string(REPLACE ";" " " command "${ARGV}")
    message(FATAL_ERROR "failed (${rc}): ${command}\n${out}")
  endif()
  set(out "${out}" PARENT_SCOPE)
endfunction()
function(expect_version what found)
  if(NOT found STREQUAL VERSION)
    message(FATAL_ERROR "${what} reports version '${found}', the build is ${VERSION}")
  endif()
endfunction()

set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})
run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})

# The SONAME carries the major version; the file name the whole version.
string(REGEX MATCH "^[0-9]+" major "${VERSION}")
set(soname libvantor_message_board.so.${major})
set(libdir ${prefix}/${LIBDIR})
foreach(file libvantor_message_board.so ${soname} libvantor_message_board.so.${VERSION}
             pkgconfig/vantor_message_board.pc cmake/vantor_message_board/vantor_message_board-config.cmake
             cmake/vantor_message_board/vantor_message_board-config-version.cmake)
  if(NOT EXISTS ${libdir}/${file})
    message(FATAL_ERROR "not installed: ${libdir}/${file}")
  endif()
endforeach()
execute_process(COMMAND readelf -d ${libdir}/libvantor_message_board.so.${VERSION} OUTPUT_VARIABLE dynamic)
string(REPLACE "." "\\." soname_pattern "${soname}")
if(NOT dynamic MATCHES "Library soname: \\[${soname_pattern}\\]")
  message(FATAL_ERROR "unexpected SONAME (expected ${soname}):\n${dynamic}")
endif()

# The consumer is built with Ninja where it is installed, and otherwise with CMake's default generator,
# so that a build with Makefiles does not need Ninja for its tests.
find_program(ninja NAMES ninja ninja-build)
set(generator "")
if(ninja)
  set(generator -G Ninja)
endif()

# find_package() with the major version, as a consumer would ask for it.
run(${CMAKE_COMMAND} -S ${SOURCE_DIR} -B ${WORK_DIR}/build ${generator} -DCMAKE_CXX_COMPILER=${CXX}
    -DCMAKE_PREFIX_PATH=${prefix})
run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
file(READ ${WORK_DIR}/build/found_version found)
expect_version("find_package()" "${found}")
run(${WORK_DIR}/build/consumer)
string(REGEX MATCH "^vantor_message_board ([^\n]*)" first "${out}")
expect_version("the version header found through find_package()" "${CMAKE_MATCH_1}")

# pkg-config.
set(ENV{PKG_CONFIG_PATH} ${libdir}/pkgconfig)
execute_process(COMMAND pkg-config --cflags --libs vantor_message_board OUTPUT_VARIABLE flags
                RESULT_VARIABLE rc OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT rc EQUAL 0)
  message(FATAL_ERROR "pkg-config does not know vantor_message_board")
endif()
separate_arguments(flags UNIX_COMMAND "${flags}")
# The prefix must be the one installed into, as a plain absolute path that other tools can use.
execute_process(COMMAND pkg-config --variable=prefix vantor_message_board OUTPUT_VARIABLE pc_prefix
                OUTPUT_STRIP_TRAILING_WHITESPACE)
if(NOT pc_prefix STREQUAL prefix)
  message(FATAL_ERROR "pkg-config reports prefix '${pc_prefix}', installed into '${prefix}'")
endif()
execute_process(COMMAND pkg-config --modversion vantor_message_board OUTPUT_VARIABLE found
                OUTPUT_STRIP_TRAILING_WHITESPACE)
expect_version("pkg-config" "${found}")
run(${CXX} -std=c++17 ${SOURCE_DIR}/../../examples/host_contract.cpp ${flags} -Wl,-rpath,${libdir}
    -o ${WORK_DIR}/consumer_pc)
run(${WORK_DIR}/consumer_pc)
string(REGEX MATCH "^vantor_message_board ([^\n]*)" first "${out}")
expect_version("the version header found through pkg-config" "${CMAKE_MATCH_1}")
