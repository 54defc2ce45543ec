# cmake -DWORDS=PROGRAM -DTEMPLATE=IN -DOUTPUT=OUT -P configure.cmake
# Fills the completion's template with what completion_words prints.
execute_process(COMMAND ${WORDS} OUTPUT_VARIABLE _words RESULT_VARIABLE _status)
if(NOT _status EQUAL 0)
  message(FATAL_ERROR "${WORDS} failed: ${_status}")
endif()
string(STRIP "${_words}" _words)
string(REPLACE "\n" ";" _words "${_words}")
list(POP_FRONT _words ZARN_FOLDER_LIST)
list(JOIN _words " " ZARN_FIELDS)
configure_file(${TEMPLATE} ${OUTPUT}.tmp @ONLY)
file(RENAME ${OUTPUT}.tmp ${OUTPUT})
