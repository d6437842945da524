# Debian packages, one per install component (cmake/ApartmentInstall.cmake):
#
#   runtime    libapartment<SOVERSION>  the versioned shared libraries
#   dev        libapartment-dev         headers, apartment.pc, the CMake
#                                       package, the .so links, apartment(3)
#   tools      apartment-tools          the tool, apartment(1), completion
#   python     python3-apartment        the Python module (python/), only
#                                       when this build makes it
#   dissector  apartment-wireshark      the Wireshark dissector
#
# Built with `cpack -G DEB` (or `cmake --build <dir> --target package`) in
# a build configured with -DCMAKE_INSTALL_PREFIX=/usr, which puts the
# libraries into Debian's multiarch directory. A new package is one more
# install component: add it to APARTMENT_PACKAGE_COMPONENTS and give it a
# name, a section, a description and the components it depends on below.
#
# This file is read after every directory that installs something, so that
# a package whose directory may leave its part out can follow that
# decision: python/ sets APARTMENT_PYTHON_VERSION only when it builds the
# module, and only then is there a python3-apartment.
#
# The dissector has a package of its own rather than a place in
# apartment-tools: it is a Lua script that needs neither the library nor
# the tool, and it belongs where captures are read, which is seldom where
# apartments run. It enhances tshark and wireshark instead of depending on
# them, so that installing it never pulls in a Wireshark. Its folder is
# under the multiarch libdir, where Debian's Wireshark looks for Lua
# plugins, which makes the package architecture-specific although the
# script is not.
set(APARTMENT_PACKAGE_CONTACT "Apartment developers <apartment-dev@example.org>"
    CACHE STRING "Maintainer named in the Debian packages")
set(APARTMENT_PACKAGE_RELEASE 1 CACHE STRING "Debian revision of the packages")

set(APARTMENT_PACKAGE_COMPONENTS runtime dev tools dissector)
set(APARTMENT_RUNTIME_PACKAGE libapartment${PROJECT_VERSION_MAJOR})
set(APARTMENT_DEV_PACKAGE libapartment-dev)
set(APARTMENT_TOOLS_PACKAGE apartment-tools)
set(APARTMENT_DISSECTOR_PACKAGE apartment-wireshark)
if(APARTMENT_PYTHON_VERSION)
  list(APPEND APARTMENT_PACKAGE_COMPONENTS python)
  set(APARTMENT_PYTHON_PACKAGE python3-apartment)
endif()

set(CPACK_PACKAGE_NAME apartment)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "Apartment developers")
set(CPACK_PACKAGE_CONTACT "${APARTMENT_PACKAGE_CONTACT}")
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL ${APARTMENT_PACKAGE_COMPONENTS})
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${APARTMENT_PACKAGE_RELEASE})
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# Each package depends on exactly this version of the packages it is built
# with (CPACK_COMPONENT_<C>_DEPENDS), and dpkg-shlibdeps adds libc6,
# libstdc++6 and libgcc-s1 (and libssl3 in a build with TLS) at the
# versions the binaries need. It finds
# libapartment itself in the build tree, where no package owns it.
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
find_program(APARTMENT_DPKG_SHLIBDEPS dpkg-shlibdeps)
if(APARTMENT_DPKG_SHLIBDEPS)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
  get_target_property(_apartment_dir apartment BINARY_DIR)
  get_target_property(_platform_dir apartment_platform BINARY_DIR)
  set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${_apartment_dir} ${_platform_dir})
else()
  set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6 (>= 2.34), libgcc-s1 (>= 3.0), libstdc++6 (>= 11)")
  if(APARTMENT_WITH_TLS)
    string(APPEND CPACK_DEBIAN_PACKAGE_DEPENDS ", libssl3 (>= 3.0.0)")
  endif()
endif()

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${APARTMENT_RUNTIME_PACKAGE})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
# dpkg runs ldconfig once after the whole installation for packages that
# activate its trigger. The shlibs file, which tells packages built against
# the libraries to depend on this version or a later one, is written here:
# CPack would generate one for every package with a shared object in it,
# and warn about the Python extension, which has no SONAME.
configure_file(${PROJECT_SOURCE_DIR}/cmake/debian/shlibs.in
               ${PROJECT_BINARY_DIR}/debian/shlibs @ONLY)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/cmake/debian/triggers ${PROJECT_BINARY_DIR}/debian/shlibs)
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
"messaging between the processes of an application over TCP
Apartment lets the processes of one application exchange requests,
responses, notifications and raw frames between named nodes, each process
in its own apartment named tcp://<IPv4>:<port>.
.
This package contains the shared libraries.")

set(CPACK_DEBIAN_DEV_PACKAGE_NAME ${APARTMENT_DEV_PACKAGE})
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_COMPONENT_DEV_DEPENDS runtime)
set(CPACK_COMPONENT_DEV_DESCRIPTION
"messaging between the processes of an application (development files)
Apartment lets the processes of one application exchange requests,
responses, notifications and raw frames between named nodes, each process
in its own apartment named tcp://<IPv4>:<port>.
.
This package contains the C interface headers, the pkg-config file, the
CMake package and the apartment(3) manual page.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ${APARTMENT_TOOLS_PACKAGE})
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION net)
set(CPACK_COMPONENT_TOOLS_DEPENDS runtime)
set(CPACK_COMPONENT_TOOLS_DESCRIPTION
"command-line tool for Apartment messaging
The apartment tool serves nodes, sends requests, notifications and raw
frames to any apartment, watches one with the heartbeat and measures round
trips and throughput.")

if(APARTMENT_PYTHON_VERSION)
  set(CPACK_DEBIAN_PYTHON_PACKAGE_NAME ${APARTMENT_PYTHON_PACKAGE})
  set(CPACK_DEBIAN_PYTHON_PACKAGE_SECTION python)
  set(CPACK_COMPONENT_PYTHON_DEPENDS runtime)
  # The extension is built for one minor version of the interpreter (its
  # file name says which), so the package admits no other.
  string(REPLACE "." ";" _python_version ${APARTMENT_PYTHON_VERSION})
  list(GET _python_version 0 _python_major)
  list(GET _python_version 1 _python_minor)
  math(EXPR _python_next "${_python_minor} + 1")
  set(CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS
      "python3 (>= ${APARTMENT_PYTHON_VERSION}~), python3 (<< ${_python_major}.${_python_next})")
  if(NOT APARTMENT_DPKG_SHLIBDEPS)
    string(APPEND CPACK_DEBIAN_PYTHON_PACKAGE_DEPENDS ", ${CPACK_DEBIAN_PACKAGE_DEPENDS}")
  endif()
  set(CPACK_COMPONENT_PYTHON_DESCRIPTION
"Python 3 module for Apartment messaging
Apartment lets the processes of one application exchange requests,
responses, notifications and raw frames between named nodes, each process
in its own apartment named tcp://<IPv4>:<port>.
.
This package contains the module apartment, with which a Python program
opens an apartment, serves nodes and sends requests, notifications and
raw frames.")
endif()

set(CPACK_DEBIAN_DISSECTOR_PACKAGE_NAME ${APARTMENT_DISSECTOR_PACKAGE})
set(CPACK_DEBIAN_DISSECTOR_PACKAGE_SECTION net)
# A script: no native dependencies, whatever the other packages have.
set(CPACK_DEBIAN_DISSECTOR_PACKAGE_DEPENDS "")
set(CPACK_DEBIAN_DISSECTOR_PACKAGE_ENHANCES "tshark, wireshark")
set(CPACK_COMPONENT_DISSECTOR_DESCRIPTION
"Wireshark dissector for Apartment messaging
A Lua plugin that Wireshark and tshark load at start to decode the frames
Apartment exchanges over TCP: connections, requests, notifications,
responses, heartbeats and raw frames, each with its fields named
apartment.*.")

# What Debian keeps beside every package: its copyright and changelog. Only
# packages get them, not a plain `cmake --install`.
string(TIMESTAMP APARTMENT_PACKAGE_DATE "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(${PROJECT_SOURCE_DIR}/cmake/debian/changelog.in
               ${PROJECT_BINARY_DIR}/debian/changelog.Debian @ONLY)
if(APARTMENT_GZIP)
  add_custom_command(OUTPUT ${PROJECT_BINARY_DIR}/debian/changelog.Debian.gz
    COMMAND ${APARTMENT_GZIP} -9nkf ${PROJECT_BINARY_DIR}/debian/changelog.Debian
    DEPENDS ${PROJECT_BINARY_DIR}/debian/changelog.Debian VERBATIM)
  add_custom_target(apartment_debian_changelog ALL
                    DEPENDS ${PROJECT_BINARY_DIR}/debian/changelog.Debian.gz)
endif()
foreach(component IN LISTS APARTMENT_PACKAGE_COMPONENTS)
  string(TOUPPER ${component} upper)
  set(docdir ${CMAKE_INSTALL_DATADIR}/doc/${APARTMENT_${upper}_PACKAGE})
  install(FILES ${PROJECT_SOURCE_DIR}/cmake/debian/copyright DESTINATION ${docdir}
          COMPONENT ${component} EXCLUDE_FROM_ALL)
  if(APARTMENT_GZIP)
    install(FILES ${PROJECT_BINARY_DIR}/debian/changelog.Debian.gz DESTINATION ${docdir}
            COMPONENT ${component} EXCLUDE_FROM_ALL)
  endif()
endforeach()

include(CPack)
