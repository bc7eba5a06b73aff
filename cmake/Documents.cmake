# Every tool, by the name of its target: from here it is installed, with its man page and completions.
set(OPAL_TOOLS opal-package opal-origin opal-play opal-report opal-simulate)
if(OPAL_TICKET_START)
  list(APPEND OPAL_TOOLS opal-service)
endif()

set(OPAL_ZSH_COMPLETIONS ${CMAKE_INSTALL_DATADIR}/zsh/site-functions CACHE STRING "Where zsh looks")

# The tools make these documents themselves, of the table of options that they parse by.
function(opal_tool_document tool kind file destination)
  set(path ${CMAKE_BINARY_DIR}/documents/${kind}/${file})
  file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/documents/${kind})
  add_custom_command(OUTPUT ${path}
    COMMAND sh -c "out=$1; shift; exec \"$0\" --print-document \"$@\" >\"$out\""
            $<TARGET_FILE:${tool}> ${path} ${kind} ${OPAL_TOOLS}
    DEPENDS ${tool}
    VERBATIM)
  set_property(GLOBAL APPEND PROPERTY OPAL_TOOL_DOCUMENTS ${path})
  install(FILES ${path} DESTINATION ${destination})
endfunction()

function(opal_tool_documents)
  foreach(tool ${OPAL_TOOLS})
    opal_tool_document(${tool} man ${tool}.1 ${CMAKE_INSTALL_MANDIR}/man1)
    opal_tool_document(${tool} bash ${tool} ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
    opal_tool_document(${tool} zsh _${tool} ${OPAL_ZSH_COMPLETIONS})
    opal_tool_document(${tool} fish ${tool}.fish ${CMAKE_INSTALL_DATADIR}/fish/vendor_completions.d)
  endforeach()
  get_property(documents GLOBAL PROPERTY OPAL_TOOL_DOCUMENTS)
  if(OPAL_SANITIZE)
    add_custom_target(tool_documents DEPENDS ${documents})  # not all tools are built then
  else()
    add_custom_target(tool_documents ALL DEPENDS ${documents})
  endif()
endfunction()

# The pages of the public interface: cmake --build BUILD --target docs. Without warnings, or not.
function(opal_interface_pages)
  find_package(Doxygen QUIET)
  if(NOT DOXYGEN_FOUND)
    return()
  endif()
  set(DOXYGEN_PROJECT_NAME libOPAL)
  set(DOXYGEN_PROJECT_NUMBER ${PROJECT_VERSION})
  set(DOXYGEN_PROJECT_BRIEF "${PROJECT_DESCRIPTION}")
  set(DOXYGEN_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/pages)
  set(DOXYGEN_WARN_AS_ERROR FAIL_ON_WARNINGS)
  set(DOXYGEN_QUIET YES)
  set(DOXYGEN_EXTRACT_ALL YES)
  set(DOXYGEN_JAVADOC_AUTOBRIEF YES)
  set(DOXYGEN_MACRO_EXPANSION YES)
  set(DOXYGEN_EXPAND_ONLY_PREDEF YES)
  set(DOXYGEN_PREDEFINED OPAL_EXPORT=)
  set(DOXYGEN_STRIP_FROM_PATH ${CMAKE_SOURCE_DIR}/src ${CMAKE_SOURCE_DIR}/platform/include)
  set(DOXYGEN_HAVE_DOT NO)
  set(DOXYGEN_CLASS_GRAPH NO)
  list(TRANSFORM OPAL_PUBLIC_HEADERS PREPEND ${CMAKE_SOURCE_DIR}/src/ OUTPUT_VARIABLE headers)
  file(GLOB television CONFIGURE_DEPENDS ${CMAKE_SOURCE_DIR}/platform/include/*.h)
  doxygen_add_docs(docs ${headers} ${television} USE_STAMP_FILE)
endfunction()
