# Shared warning set; KSIEVE_WERROR turns warnings into errors (CI always does).
add_library(ksieve_warnings INTERFACE)
target_compile_options(ksieve_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wnon-virtual-dtor -Wcast-align -Woverloaded-virtual
  # g++ 12 reports impossible overlaps inside std::string concatenation at -O2
  # (a known false positive of its -Wrestrict); it would fail the build for no fault.
  -Wno-restrict
  $<$<BOOL:${KSIEVE_WERROR}>:-Werror>)

# ksieve_module(<name> [DEPS ...])
# The library of one source folder, built from every .cpp in it. Its public
# include directory is the folder itself, so a module is used through its one
# header. DEPS are the only modules it may use: the links encode the layering.
function(ksieve_module name)
  cmake_parse_arguments(ARG "" "" "DEPS" ${ARGN})
  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/*.cpp)
  add_library(ks_${name} STATIC ${sources})
  target_include_directories(ks_${name} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR})
  target_link_libraries(ks_${name} PUBLIC ${ARG_DEPS} PRIVATE ksieve_warnings)
endfunction()
