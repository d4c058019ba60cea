# Where `cmake --install` and the packages put things (docs/device-build.md lists the result).
#
# Libraries go to lib/<multiarch tuple> where the toolchain has one, whatever the prefix: that is
# how Debian builds its own packages, and the arm64 cross build lands in lib/aarch64-linux-gnu.
if(CMAKE_LIBRARY_ARCHITECTURE AND NOT DEFINED CACHE{CMAKE_INSTALL_LIBDIR})
  set(CMAKE_INSTALL_LIBDIR lib/${CMAKE_LIBRARY_ARCHITECTURE} CACHE PATH "Object code libraries (LIBDIR)")
endif()
include(GNUInstallDirs)
# Packages and lintian expect rwxr-xr-x on every directory, whatever the umask of the build.
set(CMAKE_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

# The platform loads modules from a directory of its own.
set(ORVELLO_INSTALL_MODULEDIR ${CMAKE_INSTALL_LIBDIR}/vrax/modules)
# The devkit's private libraries, reached only through RUNPATH or a full path: the desktop
# platform (platform/) and the reference player library (oplayer-ref/VERSION/). Never the
# public library directory: the platform's libraries belong to the device and liboplayer-1.so
# to the service provider, and a copy of either there would collide with the real thing.
set(ORVELLO_INSTALL_DEVKITDIR ${CMAKE_INSTALL_LIBDIR}/orvello-devkit)
set(ORVELLO_INSTALL_PLATFORMDIR ${ORVELLO_INSTALL_DEVKITDIR}/platform)
set(ORVELLO_INSTALL_OPLAYERDIR ${ORVELLO_INSTALL_DEVKITDIR}/oplayer-ref)
# One documentation directory per package, as Debian expects (copyright and changelog included).
set(ORVELLO_INSTALL_MODULE_DOCDIR ${CMAKE_INSTALL_DATAROOTDIR}/doc/orvello-module)
set(ORVELLO_INSTALL_DEVKIT_DOCDIR ${CMAKE_INSTALL_DATAROOTDIR}/doc/orvello-devkit)

# orvello_install_rpath(VAR FROM_DIR TO_DIR): an $ORIGIN-relative RUNPATH from one install
# directory to another, so an installed tree works wherever it is unpacked.
function(orvello_install_rpath var from to)
  file(RELATIVE_PATH relative /${from} /${to})
  if(relative STREQUAL "")
    set(${var} "$ORIGIN" PARENT_SCOPE)
  else()
    set(${var} "$ORIGIN/${relative}" PARENT_SCOPE)
  endif()
endfunction()

# orvello_install_gzipped(FILE DESTINATION DIR COMPONENT C [RENAME NAME]): installs FILE compressed
# as Debian wants manual pages and changelogs (gzip -9n: best, and no name or time inside, so the
# same source gives the same package).
find_program(ORVELLO_GZIP gzip REQUIRED)
function(orvello_install_gzipped file)
  cmake_parse_arguments(ARG "" "DESTINATION;COMPONENT;RENAME" "" ${ARGN})
  get_filename_component(source ${file} ABSOLUTE)
  if(NOT ARG_RENAME)
    get_filename_component(ARG_RENAME ${file} NAME)
  endif()
  string(MAKE_C_IDENTIFIER "${ARG_DESTINATION}/${ARG_RENAME}" id)
  set(output ${CMAKE_CURRENT_BINARY_DIR}/gz/${id}/${ARG_RENAME}.gz)
  add_custom_command(OUTPUT ${output}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${CMAKE_CURRENT_BINARY_DIR}/gz/${id}
    COMMAND ${ORVELLO_GZIP} -9nc ${source} > ${output}
    DEPENDS ${source} VERBATIM)
  add_custom_target(gz_${id} ALL DEPENDS ${output})
  install(FILES ${output} DESTINATION ${ARG_DESTINATION} COMPONENT ${ARG_COMPONENT})
endfunction()
