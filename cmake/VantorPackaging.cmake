# Debian packages through CPack, one per install component:
#   Runtime     -> libvantor-message-board13     the versioned shared object (.so.13 and .so.13.<minor>.<patch>)
#   Development -> libvantor-message-board-dev   headers, the .so link, the CMake package and the .pc
# The runtime package is named after the SONAME, as Debian's library packaging asks, so that a future
# ABI version can be installed beside this one. Build with the `package` preset (prefix /usr, where
# GNUInstallDirs picks the multiarch libdir) and `cpack --preset package`, or run scripts/package.sh.

set(vantor_debian_dir ${CMAKE_CURRENT_SOURCE_DIR}/packaging/debian)
set(vantor_runtime_package libvantor-message-board${PROJECT_VERSION_MAJOR})
set(vantor_dev_package libvantor-message-board-dev)

# The Debian revision comes from the top entry of the changelog, whose upstream part must be the
# project version: a release without a changelog entry stops here rather than ship a stale one.
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${vantor_debian_dir}/changelog)
file(STRINGS ${vantor_debian_dir}/changelog vantor_changelog_top LIMIT_COUNT 1)
if(NOT vantor_changelog_top MATCHES "^vantor-message-board \\(([^)-]+)-([^)]+)\\) ")
  message(FATAL_ERROR "packaging/debian/changelog: cannot read the version of the top entry")
endif()
if(NOT CMAKE_MATCH_1 STREQUAL PROJECT_VERSION)
  message(FATAL_ERROR "packaging/debian/changelog: the top entry is ${CMAKE_MATCH_1}, the project is "
                      "${PROJECT_VERSION}; add a changelog entry for this release")
endif()
set(vantor_debian_revision ${CMAKE_MATCH_2})
set(vantor_debian_version ${PROJECT_VERSION}-${vantor_debian_revision})

if(NOT CMAKE_INSTALL_PREFIX STREQUAL "/usr")
  message(WARNING "Debian packages install into /usr, but CMAKE_INSTALL_PREFIX is ${CMAKE_INSTALL_PREFIX}; "
                  "the libdir (${CMAKE_INSTALL_LIBDIR}) will not be Debian's multiarch directory")
endif()

# Every binary package carries its copyright file and its changelog, compressed with gzip -9n (no name
# or time stamp, so that rebuilding gives the same bytes), in /usr/share/doc/<package>/.
find_program(VANTOR_GZIP gzip REQUIRED)
set(vantor_changelog_gz ${CMAKE_CURRENT_BINARY_DIR}/packaging/changelog.Debian.gz)
# Only Ninja creates the directory of a custom command's output by itself; Makefiles do not.
add_custom_command(OUTPUT ${vantor_changelog_gz}
                   COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_CURRENT_BINARY_DIR}/packaging
                   COMMAND ${VANTOR_GZIP} -9nc ${vantor_debian_dir}/changelog > ${vantor_changelog_gz}
                   DEPENDS ${vantor_debian_dir}/changelog VERBATIM)
add_custom_target(vantor_debian_changelog ALL DEPENDS ${vantor_changelog_gz})
foreach(component_package IN ITEMS "Runtime;${vantor_runtime_package}" "Development;${vantor_dev_package}")
  list(GET component_package 0 component)
  list(GET component_package 1 package)
  install(FILES ${vantor_debian_dir}/copyright ${vantor_changelog_gz}
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/doc/${package} COMPONENT ${component})
endforeach()

# CPack strips with a plain `strip`, which keeps the .comment and .note sections (the compiler's and
# the toolchain's version strings). A packaged library is stripped as Debian's dh_strip does it, without
# them. Only when stripping is asked for: a plain `cmake --install` leaves the library as built.
set(vantor_installed_libdir "\${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}")  # the prefix installed into
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(vantor_installed_libdir "${CMAKE_INSTALL_LIBDIR}")
endif()
install(CODE "
  if(CMAKE_INSTALL_DO_STRIP)
    execute_process(COMMAND \"${CMAKE_STRIP}\" --remove-section=.comment --remove-section=.note
        \"\$ENV{DESTDIR}${vantor_installed_libdir}/$<TARGET_FILE_NAME:vantor_message_board>\"
        COMMAND_ERROR_IS_FATAL ANY)
  endif()" COMPONENT Runtime)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_DIRECTORY ${CMAKE_CURRENT_BINARY_DIR}/packages)
set(CPACK_PACKAGE_NAME vantor-message-board)
set(CPACK_PACKAGE_VENDOR "Vantor")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
# Each package has a synopsis of its own, the first line of its component description. CPack would put
# a non-default project summary in front of both, so the summary is left at CPack's default value.
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "${CMAKE_PROJECT_NAME} built using CMake")
set(CPACK_PACKAGE_CONTACT "Vantor message board maintainers <message-board@vantor.example>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
# Install with DESTDIR into the staging tree, so that install scripts see the real prefix (/usr): the
# pkg-config file records it.
set(CPACK_SET_DESTDIR ON)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL Runtime Development)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${vantor_debian_revision})
set(CPACK_DEBIAN_PACKAGE_SOURCE vantor-message-board)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Runtime dependencies (libc6, libstdc++6, libgcc-s1) as dpkg-shlibdeps finds them in the binary.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# A shlibs file, so that packages built against us depend on this ABI at this version or newer.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${vantor_runtime_package})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# An ldconfig trigger, which Debian expects of a library package instead of ldconfig calls in its
# maintainer scripts. CPack adds such calls to a generated postinst and postrm anyway, for any library
# under /usr/lib, and cannot be told not to; replacing them with our own scripts would leave empty
# maintainer scripts, which is no better. So a post-build step packs the runtime package again without
# the two (VantorDebianPostBuild.cmake), for `cpack` and scripts/package.sh alike.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${vantor_debian_dir}/triggers)
set(CPACK_POST_BUILD_SCRIPTS ${CMAKE_CURRENT_SOURCE_DIR}/cmake/VantorDebianPostBuild.cmake)
# Contents compressed as dpkg-deb compresses them by default, so that the repacked runtime package
# and the development package, which stays as CPack built it, are alike.
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
    "in-process message board, signals and cyber-security contract
libvantor_message_board lets the components of one host process exchange
state in-process: a process-wide board of published topics, a thread-safe
signal/slot template and the host's cyber-security contract.
.
This package contains the shared library.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME ${vantor_dev_package})
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
# The headers and the .so link belong to exactly this build of the runtime package; Boost is needed
# by the public headers (boost::optional), which are header-only.
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "${vantor_runtime_package} (= ${vantor_debian_version}), libboost-dev")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
    "in-process message board, signals and cyber-security contract (development)
libvantor_message_board lets the components of one host process exchange
state in-process: a process-wide board of published topics, a thread-safe
signal/slot template and the host's cyber-security contract.
.
This package contains the C++17 headers, the CMake package
(find_package(vantor_message_board)) and the pkg-config file.")

include(CPack)
