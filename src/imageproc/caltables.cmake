# Compiled-in calibration tables: calibgen (tools/calibgen) computes them
# from the calibration model into binary files and an assembler file that
# includes them in .rodata under the global names usXtable, usYtable,
# usXtable1103, usYtable1103 and pModBuf. They are regenerated whenever the
# generator (and so the model) changes.
set(_caldir ${CMAKE_CURRENT_BINARY_DIR}/caltables)
set(_calbin)
foreach(_t usXtable usYtable usXtable1103 usYtable1103 pModBuf)
  list(APPEND _calbin ${_caldir}/${_t}.bin)
endforeach()
file(MAKE_DIRECTORY ${_caldir})
add_custom_command(
  OUTPUT ${_caldir}/caltables.S ${_calbin}
  COMMAND $<TARGET_FILE:calibgen> ${_caldir}
  DEPENDS calibgen
  COMMENT "Generating the calibration tables"
  VERBATIM)
set_source_files_properties(${_caldir}/caltables.S PROPERTIES
  GENERATED TRUE
  LANGUAGE ASM
  OBJECT_DEPENDS "${_calbin}")
add_library(tavk05_caltables OBJECT ${_caldir}/caltables.S)
target_link_libraries(tavk05_caltables PUBLIC tavk05_headers)
