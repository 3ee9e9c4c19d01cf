# SPDX-License-Identifier: MIT
# dorve_layer(NAME SOURCES file... [USES layer...])
#
# One folder of src/ as one object library, `layer_NAME`. Its headers are reached as "NAME/header.h" through a
# folder of links in the build tree that holds this layer alone, so a layer sees itself and what it USES (and
# what those use), and an include of anything else does not compile.
#
# Object libraries, so that a program holds every operation of the layers that it is linked from, whether or
# not something calls it.
function(dorve_layer name)
  cmake_parse_arguments(PARSE_ARGV 1 layer "" "" "SOURCES;USES")
  set(room ${PROJECT_BINARY_DIR}/include/${name})
  file(MAKE_DIRECTORY ${room})
  file(CREATE_LINK ${CMAKE_CURRENT_SOURCE_DIR}/${name} ${room}/${name} SYMBOLIC)

  list(TRANSFORM layer_SOURCES PREPEND ${name}/)
  add_library(layer_${name} OBJECT ${layer_SOURCES})
  target_include_directories(layer_${name} PUBLIC ${room})
  list(TRANSFORM layer_USES PREPEND layer_)
  target_link_libraries(layer_${name} PUBLIC ${layer_USES})
endfunction()
