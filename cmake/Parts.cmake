# tavk05_part(NAME DIR): an object library from every source file in DIR.
# Directories are globbed so that a new source file needs no build edit.
function(tavk05_part NAME DIR)
  file(GLOB _src CONFIGURE_DEPENDS ${DIR}/*.cpp ${DIR}/*.c ${DIR}/*.S)
  add_library(${NAME} OBJECT ${_src} ${ARGN})
  target_link_libraries(${NAME} PUBLIC tavk05_headers PRIVATE tavk05_internal tavk05_profile)
endfunction()
