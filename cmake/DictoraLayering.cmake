# Each library exposes only its own headers: they are linked, one by one,
# under build/include/<target>/<folder>/, and that root is the library's only
# public include directory. A library therefore sees exactly the headers of
# what it links, and an include in the wrong direction fails to build.
# tools/layering.py checks the same rule from the sources (see tests/layering).
function(dictora_library_headers target folder)
  set(root ${CMAKE_BINARY_DIR}/include/${target})
  file(REMOVE_RECURSE ${root})
  file(MAKE_DIRECTORY ${root}/${folder})
  file(GLOB headers CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/src/${folder}/*.h)
  foreach(header IN LISTS headers)
    get_filename_component(name ${header} NAME)
    file(CREATE_LINK ${header} ${root}/${folder}/${name} SYMBOLIC)
  endforeach()
  target_include_directories(${target} PUBLIC ${root})
endfunction()
