# SPDX-License-Identifier: MIT
# dorve_layer(NAME [FOLDER folder] SOURCES file... [USES layer...])
#
# Builds src/FOLDER as object library dorve_layer_NAME. Its headers are in src/FOLDER/include/dorve/NAME.
# Without FOLDER, the folder is src/NAME.
# Its code can include the headers of its own layer and of the layers that it USES, directly or through another one.
# Any other include does not compile.
function(dorve_layer name)
  cmake_parse_arguments(PARSE_ARGV 1 layer "" "FOLDER" "SOURCES;USES")
  if(NOT layer_FOLDER)
    set(layer_FOLDER ${name})
  endif()
  list(TRANSFORM layer_SOURCES PREPEND ${layer_FOLDER}/)
  add_library(dorve_layer_${name} OBJECT ${layer_SOURCES})
  target_include_directories(dorve_layer_${name} PUBLIC $<BUILD_INTERFACE:${CMAKE_CURRENT_SOURCE_DIR}/${layer_FOLDER}/include>)
  list(TRANSFORM layer_USES PREPEND dorve_layer_)
  target_link_libraries(dorve_layer_${name} PUBLIC ${layer_USES})
endfunction()
