# ks_openms_reference: OpenMS as an independent reference for the tests of the
# chemistry tools. Debian's libopenms-dev ships a CMake package whose link
# interface names libraries that only their -dev packages provide, so the
# headers and the one library are taken directly. The package's generated
# headers (OpenMS/config.h and its siblings) sit in a build-tree path; they are
# copied into a folder of this build under the name the headers include them by.
if(TARGET ks_openms_reference)
  return()
endif()
find_path(KS_OPENMS_INCLUDE_DIR OpenMS/CHEMISTRY/AASequence.h)
find_library(KS_OPENMS_LIBRARY OpenMS)
set(_ks_openms_generated "")
if(KS_OPENMS_INCLUDE_DIR)
  file(GLOB_RECURSE _ks_openms_generated ${KS_OPENMS_INCLUDE_DIR}/OpenMS/build/config.h)
  list(FILTER _ks_openms_generated INCLUDE REGEX "/src/openms/config\\.h$")
endif()
if(NOT KS_OPENMS_INCLUDE_DIR OR NOT KS_OPENMS_LIBRARY OR NOT _ks_openms_generated)
  message(STATUS "OpenMS not found: the chemistry checks against OpenMS are not built")
  return()
endif()
list(GET _ks_openms_generated 0 _ks_openms_config)
get_filename_component(_ks_openms_generated_dir ${_ks_openms_config} DIRECTORY)
file(GLOB _ks_openms_headers ${_ks_openms_generated_dir}/*.h)
set(_ks_openms_shim ${CMAKE_BINARY_DIR}/openms_reference/include)
foreach(header ${_ks_openms_headers})
  get_filename_component(name ${header} NAME)
  configure_file(${header} ${_ks_openms_shim}/OpenMS/${name} COPYONLY)
endforeach()
add_library(ks_openms_reference INTERFACE)
target_include_directories(ks_openms_reference SYSTEM INTERFACE
  ${_ks_openms_shim} ${KS_OPENMS_INCLUDE_DIR})
target_link_libraries(ks_openms_reference INTERFACE ${KS_OPENMS_LIBRARY})
