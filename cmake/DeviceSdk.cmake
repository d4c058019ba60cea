# Imports the platform libraries of the device SDK under the same target names that
# src/platform defines on a PC, so the module's CMakeLists is the same for both.
if(NOT DEFINED VRAX_SDK_SYSROOT)
  message(FATAL_ERROR "ORVELLO_USE_DEVICE_SDK needs -DVRAX_SDK_SYSROOT=<the SDK's sysroot>")
endif()
set(VRAX_SDK_INCLUDE_DIR ${VRAX_SDK_SYSROOT}/usr/include/vrax CACHE PATH "Platform headers inside the SDK")
foreach(lib vrax_api vrax_api_play vrax_simpleMediaTransfer2 vrax_http_client vrax_crypto
            vrax_audioUtils vrax_miscUtils)
  find_library(${lib}_LIBRARY NAMES ${lib} PATHS ${VRAX_SDK_SYSROOT}/usr/lib REQUIRED NO_DEFAULT_PATH)
  add_library(${lib} SHARED IMPORTED GLOBAL)
  set_target_properties(${lib} PROPERTIES IMPORTED_LOCATION ${${lib}_LIBRARY}
                        INTERFACE_INCLUDE_DIRECTORIES ${VRAX_SDK_INCLUDE_DIR})
endforeach()
add_library(vrax_core_headers INTERFACE IMPORTED GLOBAL)
set_target_properties(vrax_core_headers PROPERTIES INTERFACE_INCLUDE_DIRECTORIES ${VRAX_SDK_INCLUDE_DIR})
set(ORVELLO_BUILD_DEVKIT OFF CACHE BOOL "" FORCE)
set(ORVELLO_BUILD_TESTS OFF CACHE BOOL "" FORCE)
set(ORVELLO_BUILD_BENCH OFF CACHE BOOL "" FORCE)
