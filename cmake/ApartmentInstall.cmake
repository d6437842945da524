# Installs what a host needs: the two shared libraries, the public headers,
# a pkg-config file (apartment.pc) and a CMake package (Apartment, target
# Apartment::apartment).
include(CMakePackageConfigHelpers)

set(APARTMENT_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/apartment)
target_include_directories(apartment INTERFACE
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/Core/Apartment>
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}/include>
  $<INSTALL_INTERFACE:${APARTMENT_INSTALL_INCLUDEDIR}>)

install(TARGETS apartment apartment_platform EXPORT ApartmentTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})

# The public surface: the C functions and the interfaces a host implements
# or receives, with the foundation headers they stand on.
install(FILES
  ${PROJECT_SOURCE_DIR}/Core/Apartment/ApartmentApi.h
  ${PROJECT_SOURCE_DIR}/Core/Apartment/ApartmentErrorDef.h
  ${PROJECT_SOURCE_DIR}/Core/Apartment/ApartmentHost.h
  ${PROJECT_SOURCE_DIR}/Core/Apartment/IApartmentCallback.h
  ${PROJECT_SOURCE_DIR}/Core/Apartment/IApartmentNodeCallback.h
  DESTINATION ${APARTMENT_INSTALL_INCLUDEDIR})
install(FILES
  ${PROJECT_SOURCE_DIR}/include/GroundKit/Base/IBase.h
  ${PROJECT_SOURCE_DIR}/include/GroundKit/Base/BaseType.h
  DESTINATION ${APARTMENT_INSTALL_INCLUDEDIR}/GroundKit/Base)
install(FILES
  ${PROJECT_SOURCE_DIR}/include/FieldKit/ModuleDef/IModuleVersion.h
  DESTINATION ${APARTMENT_INSTALL_INCLUDEDIR}/FieldKit/ModuleDef)

install(EXPORT ApartmentTargets
  NAMESPACE Apartment::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Apartment)
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
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/Apartment)

# The pkg-config file finds its prefix relative to where it is installed, so
# that an installation moved elsewhere (or made with --prefix) still works.
file(RELATIVE_PATH APARTMENT_PC_PREFIX_FROM_PCFILEDIR
     ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" APARTMENT_PC_PREFIX_FROM_PCFILEDIR
       "${APARTMENT_PC_PREFIX_FROM_PCFILEDIR}")
configure_file(${PROJECT_SOURCE_DIR}/cmake/apartment.pc.in
               ${PROJECT_BINARY_DIR}/apartment.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/apartment.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
