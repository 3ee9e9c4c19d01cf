# SPDX-License-Identifier: MIT
# dorve_layer(NAME SOURCES file... [USES layer...])
#
# Builds src/NAME as object library dorve_layer_NAME. Its include path holds only this layer, as
# <dorve/NAME/header.h>, so code can include its own layer and those it USES. Any other include does not compile.
#
# A program that links object libraries holds every operation of each layer, called or not.
function(dorve_layer name)
  cmake_parse_arguments(PARSE_ARGV 1 layer "" "" "SOURCES;USES")
  set(include ${PROJECT_BINARY_DIR}/include/${name})
  file(MAKE_DIRECTORY ${include}/dorve)
  file(CREATE_LINK ${CMAKE_CURRENT_SOURCE_DIR}/${name} ${include}/dorve/${name} SYMBOLIC)

  list(TRANSFORM layer_SOURCES PREPEND ${name}/)
  add_library(dorve_layer_${name} OBJECT ${layer_SOURCES})
  target_include_directories(dorve_layer_${name} PUBLIC $<BUILD_INTERFACE:${include}>)
  list(TRANSFORM layer_USES PREPEND dorve_layer_)
  target_link_libraries(dorve_layer_${name} PUBLIC ${layer_USES})
endfunction()
