# Embeds files in a C++ source at build time, so that what ships is what is
# in the tree (no hand-kept escaped copy).
#
# Included: heron_embed_files(OUT_VAR OUTPUT FILE...) adds the rule that
# writes OUTPUT from the FILEs and sets OUT_VAR to OUTPUT. Run with -P (by
# that rule): writes OUTPUT, defining Stat::embeddedFiles() (see
# tools/stat/Page.h), with each file under its own name, in the order given.
if(NOT CMAKE_SCRIPT_MODE_FILE)
  include_guard(GLOBAL)
  function(heron_embed_files out_var output)
    add_custom_command(OUTPUT ${output}
      COMMAND ${CMAKE_COMMAND} -DOUTPUT=${output} "-DFILES=${ARGN}" -P ${CMAKE_CURRENT_FUNCTION_LIST_FILE}
      DEPENDS ${ARGN} ${CMAKE_CURRENT_FUNCTION_LIST_FILE}
      COMMENT "Embedding files in ${output}" VERBATIM)
    set(${out_var} ${output} PARENT_SCOPE)
  endfunction()
  return()
endif()

set(arrays "")
set(entries "")
set(index 0)
foreach(path IN LISTS FILES)
  get_filename_component(name ${path} NAME)
  file(READ ${path} hex HEX)
  if(hex STREQUAL "")
    message(FATAL_ERROR "${path} is empty")
  endif()
  string(REGEX REPLACE "([0-9a-f][0-9a-f])" "0x\\1," bytes "${hex}")
  # Sixteen bytes a line keeps the source readable in a diff.
  string(REPEAT "0x..," 16 line)
  string(REGEX REPLACE "(${line})" "\\1\n    " bytes "${bytes}")
  string(APPEND arrays "const unsigned char kFile${index}[] = {\n    ${bytes}};\n")
  string(APPEND entries "      {\"${name}\", kFile${index}, sizeof kFile${index}},\n")
  math(EXPR index "${index} + 1")
endforeach()

set(text "// Written by cmake/EmbedFiles.cmake from tools/stat/page: edit those files.
#include \"Page.h\"

namespace Stat {

namespace {

${arrays}
}  // namespace

std::vector<EmbeddedFile> embeddedFiles() {
  return {
${entries}  };
}

}  // namespace Stat
")
# Written only when it changed, so that a touched file rebuilds no more.
if(EXISTS ${OUTPUT})
  file(READ ${OUTPUT} old)
  if(old STREQUAL text)
    return()
  endif()
endif()
file(WRITE ${OUTPUT} "${text}")
