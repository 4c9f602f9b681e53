# cbsd_layer(NAME [LOWER ...]): the static library cbsd_NAME from src/NAME/*.cpp,
# linked to the named lower layers (and through them to theirs).  Its view of
# the source tree, ${CBSD_LAYER_VIEWS}/NAME, links src/NAME and every folder
# below it; the view is its only include directory, and the view of every layer above
# contains it.
set(CBSD_LAYER_VIEWS ${CMAKE_BINARY_DIR}/layer-views)
set(CBSD_LAYERS "" CACHE INTERNAL "layers, bottom first")

function(cbsd_layer name)
  set(below ${ARGN})
  set(visible ${name})
  foreach(lower IN LISTS below)
    list(APPEND visible ${CBSD_VISIBLE_${lower}})
  endforeach()
  list(REMOVE_DUPLICATES visible)
  set(CBSD_VISIBLE_${name} ${visible} CACHE INTERNAL "folders visible from layer ${name}")
  set(CBSD_LAYERS ${CBSD_LAYERS} ${name} CACHE INTERNAL "layers, bottom first")

  set(view ${CBSD_LAYER_VIEWS}/${name})
  file(REMOVE_RECURSE ${view})
  file(MAKE_DIRECTORY ${view})
  foreach(folder IN LISTS visible)
    file(CREATE_LINK ${CMAKE_SOURCE_DIR}/src/${folder} ${view}/${folder} SYMBOLIC)
  endforeach()

  file(GLOB sources CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/src/${name}/*.cpp)
  list(FILTER sources EXCLUDE REGEX "/src/daemon/main\\.cpp$")
  if(CBSD_USE_LIBUCI)
    list(FILTER sources EXCLUDE REGEX "_own\\.cpp$")
  else()
    list(FILTER sources EXCLUDE REGEX "_libuci\\.cpp$")
  endif()
  if(CBSD_HAVE_LIBUBUS)
    list(FILTER sources EXCLUDE REGEX "_nolibubus\\.cpp$")
  else()
    list(FILTER sources EXCLUDE REGEX "_libubus\\.cpp$")
  endif()
  if(NOT CBSD_HAVE_NFTABLES)
    list(FILTER sources EXCLUDE REGEX "_nft\\.cpp$")
  endif()
  add_library(cbsd_${name} STATIC ${sources})
  target_include_directories(cbsd_${name} PUBLIC ${view})
  foreach(lower IN LISTS below)
    target_link_libraries(cbsd_${name} PUBLIC cbsd_${lower})
  endforeach()
endfunction()

# Declares every layer of a layer list (src/LAYERS): a line names a layer and
# the layers it links to directly, bottom first; "#" starts a comment.
function(cbsd_layers_from list_file)
  file(STRINGS ${list_file} lines REGEX "^[a-z]")
  foreach(line IN LISTS lines)
    string(REGEX REPLACE "[ \t]+" ";" words "${line}")
    cbsd_layer(${words})
  endforeach()
endfunction()
