# Writes a C++ source holding every language data file as a string, in the order of order.txt.
# Run as: cmake -DLANGUAGES_DIR=... -DOUTPUT=... -P EmbedLanguages.cmake
file(STRINGS ${LANGUAGES_DIR}/order.txt lines)
set(body "")
set(count 0)
foreach(line IN LISTS lines)
  string(STRIP "${line}" line)
  if(line STREQUAL "" OR line MATCHES "^#")
    continue()
  endif()
  set(island false)
  if(line MATCHES "^island (.+)$")
    set(island true)
    set(line "${CMAKE_MATCH_1}")
  endif()
  if(NOT EXISTS ${LANGUAGES_DIR}/${line}.json)
    message(FATAL_ERROR "order.txt names ${line}, which has no file ${line}.json")
  endif()
  file(READ ${LANGUAGES_DIR}/${line}.json text)
  if(text MATCHES "\\)brimlanguage\"")
    message(FATAL_ERROR "${line}.json holds the embedding's closing mark")
  endif()
  string(APPEND body "    {\"${line}\", ${island}, R\"brimlanguage(${text})brimlanguage\"},\n")
  math(EXPR count "${count} + 1")
endforeach()
file(READ ${LANGUAGES_DIR}/presets.json presets)
set(content "// Generated from src/language/languages by EmbedLanguages.cmake. Do not edit.
#include \"language/EmbeddedLanguages.h\"

namespace brim::EmbeddedLanguages {
namespace {
const EmbeddedFile table[${count}] = {
${body}};
} // namespace

std::span<const EmbeddedFile> files() { return table; }

std::string_view presets() {
    return R\"brimlanguage(${presets})brimlanguage\";
}
} // namespace brim::EmbeddedLanguages
")
# Only touch the output when it changes, so an unrelated edit rebuilds nothing.
if(EXISTS ${OUTPUT})
  file(READ ${OUTPUT} old)
  if(old STREQUAL content)
    return()
  endif()
endif()
file(WRITE ${OUTPUT} "${content}")
