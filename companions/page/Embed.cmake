# Makes a header of the page's files: cmake -DOUTPUT=HEADER "-DFILES=FILE;..." -P Embed.cmake
set(text "// Made by Embed.cmake of the files of the page.\n#pragma once\n\n#include <string_view>\n\n")
string(APPEND text "namespace kelto::page::embedded {\n")
foreach(file IN LISTS FILES)
  get_filename_component(name "${file}" NAME)
  string(REPLACE "." "_" name "${name}")
  file(READ "${file}" content HEX)
  string(LENGTH "${content}" length)
  math(EXPR length "${length} / 2")
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "\\\\x\\1" content "${content}")
  # In pieces: no compiler has to take a text of any length.
  set(byte "\\\\x..")
  string(REGEX REPLACE "(${byte}(${byte})?(${byte})?(${byte})?(${byte})?(${byte})?(${byte})?(${byte})?)" "\"\\1\"\n"
    content "${content}")
  string(APPEND text "inline constexpr std::string_view ${name}(\n${content}, ${length});\n")
endforeach()
string(APPEND text "}  // namespace kelto::page::embedded\n")
file(WRITE "${OUTPUT}" "${text}")
