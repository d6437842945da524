# Installs what a host needs: the two shared libraries, the public headers,
# a pkg-config file (apartment.pc), a CMake package (Apartment, target
# Apartment::apartment) and the manual pages. Every rule names its install
# component, which is also its Debian package: "runtime" (the versioned
# libraries), "dev" (what building a host needs) and "tools" (the
# command-line tool); a plain `cmake --install` installs them all.
include(CMakePackageConfigHelpers)

# An installation runs from any prefix, also after it was moved, with
# nothing in the environment: libapartment.so finds its platform layer
# beside itself, and installed programs find the libraries along the path
# from their own directory. The build tree keeps CMake's absolute build
# RPATH.
set_target_properties(apartment PROPERTIES INSTALL_RPATH "\$ORIGIN")
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}" OR IS_ABSOLUTE "${CMAKE_INSTALL_BINDIR}")
  set(APARTMENT_PROGRAM_RPATH "${CMAKE_INSTALL_FULL_LIBDIR}")
else()
  file(RELATIVE_PATH _bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
  set(APARTMENT_PROGRAM_RPATH "\$ORIGIN/${_bin_to_lib}")
endif()

set(APARTMENT_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/apartment)
target_include_directories(apartment INTERFACE
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/Core/Apartment>
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
  $<INSTALL_INTERFACE:${APARTMENT_INSTALL_INCLUDEDIR}>)

install(TARGETS apartment apartment_platform EXPORT ApartmentTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT dev)

# The public surface: the C functions and the interfaces a host implements
# or receives, with the foundation headers they stand on.
install(FILES
  ${PROJECT_SOURCE_DIR}/Core/Apartment/ApartmentApi.h
  ${PROJECT_SOURCE_DIR}/Core/Apartment/ApartmentErrorDef.h
  ${PROJECT_SOURCE_DIR}/Core/Apartment/ApartmentHost.h
  ${PROJECT_SOURCE_DIR}/Core/Apartment/IApartmentCallback.h
  ${PROJECT_SOURCE_DIR}/Core/Apartment/IApartmentNodeCallback.h
  DESTINATION ${APARTMENT_INSTALL_INCLUDEDIR} COMPONENT dev)
install(FILES
  ${PROJECT_SOURCE_DIR}/include/GroundKit/Base/IBase.h
  ${PROJECT_SOURCE_DIR}/include/GroundKit/Base/BaseType.h
  DESTINATION ${APARTMENT_INSTALL_INCLUDEDIR}/GroundKit/Base COMPONENT dev)
install(FILES
  ${PROJECT_SOURCE_DIR}/include/FieldKit/ModuleDef/IModuleVersion.h
  DESTINATION ${APARTMENT_INSTALL_INCLUDEDIR}/FieldKit/ModuleDef COMPONENT dev)

install(EXPORT ApartmentTargets
  NAMESPACE Apartment::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Apartment COMPONENT dev)
configure_package_config_file(
  ${PROJECT_SOURCE_DIR}/cmake/ApartmentConfig.cmake.in
  ${PROJECT_BINARY_DIR}/ApartmentConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Apartment)
write_basic_package_version_file(
  ${PROJECT_BINARY_DIR}/ApartmentConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES
  ${PROJECT_BINARY_DIR}/ApartmentConfig.cmake
  ${PROJECT_BINARY_DIR}/ApartmentConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Apartment COMPONENT dev)

# The pkg-config file finds its prefix relative to where it is installed, so
# that an installation moved elsewhere (or made with --prefix) still works.
file(RELATIVE_PATH APARTMENT_PC_PREFIX_FROM_PCFILEDIR
     ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" APARTMENT_PC_PREFIX_FROM_PCFILEDIR
       "${APARTMENT_PC_PREFIX_FROM_PCFILEDIR}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/apartment.pc.in
               ${PROJECT_BINARY_DIR}/apartment.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/apartment.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT dev)

# Manual pages, with this version filled in and gzipped as Debian keeps
# them (man reads both forms).
find_program(APARTMENT_GZIP gzip)
function(apartment_install_man page section component)
  set(page_file ${PROJECT_BINARY_DIR}/man/${page}.${section})
  configure_file(${PROJECT_SOURCE_DIR}/docs/man/${page}.${section} ${page_file} @ONLY)
  if(APARTMENT_GZIP)
    add_custom_command(OUTPUT ${page_file}.gz
      COMMAND ${APARTMENT_GZIP} -9nkf ${page_file}
      DEPENDS ${page_file} VERBATIM)
    add_custom_target(apartment_man_${page}_${section} ALL DEPENDS ${page_file}.gz)
    set(page_file ${page_file}.gz)
  endif()
  install(FILES ${page_file} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section}
          COMPONENT ${component})
endfunction()
apartment_install_man(apartment 3 dev)
