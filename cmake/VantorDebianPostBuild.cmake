# CPack post-build step of the Debian packages (CPACK_POST_BUILD_SCRIPTS, see VantorPackaging.cmake):
# packs the runtime package again without the postinst and postrm that CPack generated for it.
#
# Those two scripts do nothing but call ldconfig, which Debian leaves to the ldconfig trigger that the
# package ships (packaging/debian/triggers); lintian reports the calls as maintscript-calls-ldconfig.
# CPack adds them for any library under /usr/lib and has no switch against it. Each script is checked
# to hold nothing else before it is dropped, so that a CPack that one day puts more into them stops the
# build here instead of losing it silently. The rest of the package (its files, md5sums, shlibs,
# triggers and control) is packed as it was, owned by root as CPack owns it, compressed as CPack's
# (CPACK_DEBIAN_COMPRESSION_TYPE).

find_program(vantor_dpkg_deb dpkg-deb REQUIRED)

set(vantor_runtime_debs "")
foreach(package_file IN LISTS CPACK_PACKAGE_FILES)
  get_filename_component(package_name "${package_file}" NAME)
  if(package_name MATCHES "^${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME}_.*\\.deb$")
    list(APPEND vantor_runtime_debs "${package_file}")
  endif()
endforeach()
list(LENGTH vantor_runtime_debs count)
if(NOT count EQUAL 1)
  message(FATAL_ERROR "expected one ${CPACK_DEBIAN_RUNTIME_PACKAGE_NAME} package among '${CPACK_PACKAGE_FILES}'")
endif()

function(vantor_run)
  execute_process(COMMAND ${ARGV} RESULT_VARIABLE status OUTPUT_VARIABLE output ERROR_VARIABLE output)
  if(NOT status EQUAL 0)
    string(REPLACE ";" " " command "${ARGV}")
    message(FATAL_ERROR "failed (${status}): ${command}\n${output}")
  endif()
endfunction()

set(deb "${vantor_runtime_debs}")
set(tree "${deb}.tree")
file(REMOVE_RECURSE "${tree}")
vantor_run(${vantor_dpkg_deb} --raw-extract "${deb}" "${tree}")

foreach(script IN ITEMS postinst postrm)
  set(path "${tree}/DEBIAN/${script}")
  if(NOT EXISTS "${path}")
    continue()  # a CPack that no longer generates it
  endif()
  # What remains of the script without its shell boilerplate, its `if [ "$1" = ... ]` and ldconfig.
  file(STRINGS "${path}" lines)
  list(FILTER lines EXCLUDE REGEX "^[ \t]*(#!/bin/sh|set -e|if \\[ \"\\$1\" = \"[a-z]+\" \\]; then|ldconfig|fi)?[ \t]*$")
  if(lines)
    list(JOIN lines "\n" rest)
    message(FATAL_ERROR "${script} of ${deb} does more than call ldconfig; it is kept:\n${rest}")
  endif()
  file(REMOVE "${path}")
endforeach()

set(compression "${CPACK_DEBIAN_COMPRESSION_TYPE}")
if(NOT compression)
  set(compression gzip)  # CPack's default
endif()
vantor_run(${vantor_dpkg_deb} --root-owner-group -Z${compression} --build "${tree}" "${deb}.new")
file(RENAME "${deb}.new" "${deb}")
file(REMOVE_RECURSE "${tree}")
message(STATUS "Packed ${deb} again without CPack's ldconfig calls in postinst and postrm")
