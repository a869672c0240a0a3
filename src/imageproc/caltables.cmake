# PLACEHOLDER: zero tables until the calibration generator exists.
set(_gen ${CMAKE_CURRENT_BINARY_DIR}/caltables_placeholder.cpp)
file(WRITE ${_gen} "#include \"tavk05/isproc.h\"\nconst unsigned short usXtable[422400] = {0};\nconst unsigned short usYtable[422400] = {0};\nconst unsigned short usXtable1103[435600] = {0};\nconst unsigned short usYtable1103[435600] = {0};\nconst unsigned char pModBuf[360000] = {0};\n")
add_library(tavk05_caltables OBJECT ${_gen})
target_link_libraries(tavk05_caltables PUBLIC tavk05_headers)
