# Debian packages of the module and the devkit (`./dev package`, or `cpack` in a build tree).
#
#   orvello-module  liborvello.so for the platform's module directory. Its run-time dependencies
#                   come from dpkg-shlibdeps, plus `vrax-platform`: the platform's libraries,
#                   which a device provides and, on a PC, the devkit.
#   orvello-devkit  vrax-host, orvello-service, orvello-demo, the desktop platform's libraries
#                   (Provides: vrax-platform), the reference player library, the interface
#                   headers and the documentation.
#
# The version is the project's; the Debian revision is the one of the newest entry of
# packaging/changelog, whose upstream part must be the project's version.
set(ORVELLO_PACKAGING_DIR ${PROJECT_SOURCE_DIR}/packaging)

file(STRINGS ${ORVELLO_PACKAGING_DIR}/changelog changelog_head LIMIT_COUNT 1)
if(NOT changelog_head MATCHES "^orvello \\(([^)-]+)-([^)]+)\\) ")
  message(FATAL_ERROR "packaging/changelog does not start with an entry 'orvello (VERSION-REVISION) ...'")
endif()
if(NOT CMAKE_MATCH_1 STREQUAL PROJECT_VERSION)
  message(FATAL_ERROR "packaging/changelog's newest entry is for ${CMAKE_MATCH_1}, the project is ${PROJECT_VERSION}: "
                      "add an entry for ${PROJECT_VERSION}")
endif()
set(ORVELLO_DEBIAN_REVISION ${CMAKE_MATCH_2})

if(CMAKE_SYSTEM_PROCESSOR MATCHES "^(x86_64|AMD64|amd64)$")
  set(ORVELLO_DEBIAN_ARCH amd64)
elseif(CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
  set(ORVELLO_DEBIAN_ARCH arm64)
else()
  set(ORVELLO_DEBIAN_ARCH "")
endif()

set(components module)
if(TARGET vrax-host)
  list(APPEND components devkit)
endif()
foreach(component IN LISTS components)
  set(docdir ${ORVELLO_INSTALL_MODULE_DOCDIR})
  if(component STREQUAL devkit)
    set(docdir ${ORVELLO_INSTALL_DEVKIT_DOCDIR})
  endif()
  install(FILES ${ORVELLO_PACKAGING_DIR}/copyright DESTINATION ${docdir} COMPONENT ${component})
  # What lintian may say of the package and why it stands (docs/device-build.md lists them).
  install(FILES ${ORVELLO_PACKAGING_DIR}/lintian/orvello-${component}
          DESTINATION ${CMAKE_INSTALL_DATAROOTDIR}/lintian/overrides COMPONENT ${component})
  orvello_install_gzipped(${ORVELLO_PACKAGING_DIR}/changelog RENAME changelog.Debian DESTINATION ${docdir}
                          COMPONENT ${component})
endforeach()

if(NOT ORVELLO_DEBIAN_ARCH)
  message(STATUS "No Debian packages for ${CMAKE_SYSTEM_PROCESSOR} (amd64 and arm64 only)")
  return()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME orvello)
set(CPACK_PACKAGE_VENDOR "Orvello")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "Orvello developers <dev@orvello.invalid>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_COMPONENTS_ALL ${components})
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${ORVELLO_DEBIAN_REVISION})
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${ORVELLO_DEBIAN_ARCH})
set(CPACK_DEBIAN_PACKAGE_SOURCE orvello)
set(CPACK_DEBIAN_PACKAGE_SECTION sound)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The module links the platform's libraries, which no installed package owns while the packages
# are built: dpkg-shlibdeps finds them where they were built (or in the device SDK), and
# vrax-platform stands for them.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS)
get_target_property(module_libraries orvello_objects LINK_LIBRARIES)
foreach(library IN LISTS module_libraries)
  if(library MATCHES "^vrax_" AND TARGET ${library})
    get_target_property(imported ${library} IMPORTED)
    get_target_property(type ${library} TYPE)
    if(imported AND type STREQUAL "SHARED_LIBRARY")
      get_target_property(location ${library} IMPORTED_LOCATION)
      get_filename_component(dir ${location} DIRECTORY)
    elseif(type STREQUAL "SHARED_LIBRARY")
      get_target_property(dir ${library} BINARY_DIR)
    else()
      continue()
    endif()
    list(APPEND CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${dir})
  endif()
endforeach()
list(REMOVE_DUPLICATES CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS)

set(version ${PROJECT_VERSION}-${ORVELLO_DEBIAN_REVISION})
set(CPACK_DEBIAN_MODULE_PACKAGE_NAME orvello-module)
set(CPACK_DEBIAN_MODULE_PACKAGE_DEPENDS vrax-platform)
set(CPACK_COMPONENT_MODULE_DESCRIPTION
  "Orvello Streams module for Vrax audio devices
The Vrax platform loads liborvello.so from its module directory. The module
publishes the Orvello Streams pairing page in the device menu, runs the
service's player library (liboplayer-1.so, installed separately by the
service provider), streams its audio to the platform's audio pipeline and
keeps the player library up to date.
.
The platform's libraries are provided by the device (package vrax-platform);
on a PC, by orvello-devkit.")

set(CPACK_DEBIAN_DEVKIT_PACKAGE_NAME orvello-devkit)
set(CPACK_DEBIAN_DEVKIT_PACKAGE_PROVIDES vrax-platform)
set(CPACK_DEBIAN_DEVKIT_PACKAGE_RECOMMENDS "orvello-module (= ${version})")
set(CPACK_COMPONENT_DEVKIT_DESCRIPTION
  "Vrax device emulator and Orvello Streams service emulator
Runs and tests the Orvello Streams module on a PC, without a device:
 - vrax-host, a device emulator with the desktop platform's libraries, a
   control API and a web page;
 - orvello-service, an update service emulator;
 - a reference player library (liboplayer-1.so, versions 1.0.0 and 1.1.0);
 - orvello-demo, the module end to end: pairing, playback and an update.
It also carries the platform's and the player library's interface headers.")

# After the packages: the module's bill of materials and SHA256SUMS beside them.
set(CPACK_POST_BUILD_SCRIPTS ${PROJECT_SOURCE_DIR}/cmake/PackageManifest.cmake)
set(CPACK_ORVELLO_MODULE_PATH ${ORVELLO_INSTALL_MODULEDIR}/liborvello.so)
set(CPACK_ORVELLO_MULTIARCH ${CMAKE_LIBRARY_ARCHITECTURE})
set(CPACK_ORVELLO_READELF ${CMAKE_READELF})
set(CPACK_ORVELLO_VERSION ${version})

include(CPack)
