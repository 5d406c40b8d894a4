# The files that the page consists of: its own, and the charting library of Debian's package. Included
# by shdtool's list; sets SHD_ASSETS_SOURCE.
set(SHD_ASSETS_SOURCE ${CMAKE_CURRENT_BINARY_DIR}/assets.cpp)

file(GLOB SHD_ASSET_FILES CONFIGURE_DEPENDS ${CMAKE_CURRENT_LIST_DIR}/page/*)
foreach(file dygraph.min.js dygraph.min.css)
  string(MAKE_C_IDENTIFIER SHD_${file} variable)
  find_file(${variable} ${file} PATHS /usr/share/javascript/dygraphs NO_DEFAULT_PATH REQUIRED)
  list(APPEND SHD_ASSET_FILES ${${variable}})
endforeach()

set(SHD_ASSET_BYTES "")
set(SHD_ASSET_LABELS "")
set(SHD_ASSET_ROWS "")
foreach(file ${SHD_ASSET_FILES})
  cmake_path(GET file FILENAME name)
  string(MAKE_C_IDENTIFIER shd_asset_${name} label)
  string(APPEND SHD_ASSET_BYTES
    "    \"${label}: .incbin \\\"${file}\\\"\\n\"\n    \"${label}_end: .byte 0\\n\"\n")
  string(APPEND SHD_ASSET_LABELS
    "extern const char ${label}[] asm(\"${label}\");\n"
    "extern const char ${label}_end[] asm(\"${label}_end\");\n")
  string(APPEND SHD_ASSET_ROWS
    "        Asset{\"${name}\", Between(${label}, ${label}_end)},\n")
endforeach()
configure_file(${CMAKE_CURRENT_LIST_DIR}/assets.cpp.in ${SHD_ASSETS_SOURCE} @ONLY)
set_source_files_properties(${SHD_ASSETS_SOURCE} PROPERTIES OBJECT_DEPENDS "${SHD_ASSET_FILES}")
