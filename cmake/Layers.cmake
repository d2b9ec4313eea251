# Each layer is one static library. Its headers are reachable only through an
# include root of its own under the build tree, holding a single link named
# after the layer ("common", "edr", "audit", ...). A library sees the roots of
# the layers it links and nothing else, so an include that reaches sideways or
# up does not compile; tests/layering adds the checks a compiler cannot make.
set(CORVID_INCLUDE_ROOT ${CMAKE_BINARY_DIR}/include)

# corvid_add_layer(<target> <name> <source dir> SOURCES ... LINKS ...)
function(corvid_add_layer target name dir)
  cmake_parse_arguments(L "" "" "SOURCES;LINKS" ${ARGN})
  set(root ${CORVID_INCLUDE_ROOT}/${target})
  file(MAKE_DIRECTORY ${root})
  if(NOT EXISTS ${root}/${name})
    file(CREATE_LINK ${dir} ${root}/${name} SYMBOLIC)
  endif()
  add_library(${target} STATIC ${L_SOURCES})
  target_include_directories(${target} PUBLIC ${root})
  target_link_libraries(${target} PUBLIC ${L_LINKS})
endfunction()
