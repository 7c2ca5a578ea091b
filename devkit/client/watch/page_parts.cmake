# Puts the page's template, its style and script, and the chart library where it was fetched, into a source file.
# Sets VYR_PAGE_PARTS to its path.
set(VYR_PAGE_PARTS ${CMAKE_CURRENT_BINARY_DIR}/page_parts.cpp)
set(page_folder ${CMAKE_CURRENT_SOURCE_DIR}/watch)
execute_process(COMMAND ${CMAKE_SOURCE_DIR}/scripts/fetch_programs.sh --path
  OUTPUT_VARIABLE chart_folder OUTPUT_STRIP_TRAILING_WHITESPACE)
# By a pattern, so that the next build finds what was fetched since this one.
file(GLOB chart_files CONFIGURE_DEPENDS ${chart_folder}/uPlot.*)

# A file's bytes as a list of numbers: no literal is long enough for a library.
function(bytes_of path out)
  set(bytes "")
  if(EXISTS ${path})
    file(READ ${path} bytes HEX)
    string(REGEX REPLACE "(..)" "0x\\1," bytes "${bytes}")
    set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${path})
  endif()
  set(${out} "${bytes}" PARENT_SCOPE)
endfunction()
bytes_of(${page_folder}/report_page.html PAGE_TEMPLATE)
bytes_of(${page_folder}/report_page.css PAGE_STYLE)
# In the order in which the browser reads them.
set(PAGE_SCRIPT "")
foreach(part page_words page_charts page_flow page_table report_page)
  bytes_of(${page_folder}/${part}.js part_bytes)
  string(APPEND PAGE_SCRIPT "${part_bytes}")
endforeach()
bytes_of(${CMAKE_CURRENT_SOURCE_DIR}/live/live_page.js LIVE_SCRIPT)
bytes_of(${chart_folder}/uPlot.iife.min.js CHART_SCRIPT)
bytes_of(${chart_folder}/uPlot.min.css CHART_STYLE)
# Its notice goes wherever it goes, as a comment before it.
bytes_of(${page_folder}/chart_notice.txt CHART_NOTICE)
if(CHART_SCRIPT)
  set(CHART_SCRIPT "0x2f,0x2a,0x21,0x0a,${CHART_NOTICE}0x2a,0x2f,0x0a,${CHART_SCRIPT}")
endif()
if(NOT CHART_SCRIPT OR NOT CHART_STYLE)
  message(STATUS "no chart library (scripts/fetch_programs.sh --charts): "
    "pages of vyr_client are built without charts")
endif()
configure_file(${page_folder}/page_parts.cpp.in ${VYR_PAGE_PARTS} @ONLY)
