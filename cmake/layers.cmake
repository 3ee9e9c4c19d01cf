# SPDX-License-Identifier: MIT
# dorve_layer(NAME SOURCES file... [USES layer...])
#
# Builds src/NAME as object library dorve_layer_NAME. Its headers are in src/NAME/include/dorve/NAME.
# Its code can include the headers of its own layer and of the layers that it USES, directly or through another one.
# Any other include does not compile.
function(dorve_layer name)
  cmake_parse_arguments(PARSE_ARGV 1 layer "" "" "SOURCES;USES")
  list(TRANSFORM layer_SOURCES PREPEND ${name}/)
  add_library(dorve_layer_${name} OBJECT ${layer_SOURCES})
  target_include_directories(dorve_layer_${name} PUBLIC $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/${name}/include>)
  list(TRANSFORM layer_USES PREPEND dorve_layer_)
  target_link_libraries(dorve_layer_${name} PUBLIC ${layer_USES})
endfunction()
