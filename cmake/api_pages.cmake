# `api_pages`: HTML pages from the comments of the public headers. A warning fails the target.
find_package(Doxygen QUIET)
if(NOT DOXYGEN_FOUND)
  message(STATUS "vekcustom: no API pages, doxygen is missing (Debian: doxygen)")
  return()
endif()

set(DOXYGEN_WARN_AS_ERROR FAIL_ON_WARNINGS)
# Members that only derived test classes reach need no words; what is documented must be so completely.
set(DOXYGEN_WARN_IF_UNDOCUMENTED NO)
set(DOXYGEN_HIDE_UNDOC_MEMBERS YES)
set(DOXYGEN_QUIET YES)
set(DOXYGEN_STRIP_FROM_PATH ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR})
set(DOXYGEN_USE_MDFILE_AS_MAINPAGE ${PROJECT_SOURCE_DIR}/docs/integrating.md)
set(DOXYGEN_MACRO_EXPANSION YES)
set(DOXYGEN_EXPAND_ONLY_PREDEF YES)
set(DOXYGEN_PREDEFINED ZEB_EXPORT=)
set(DOXYGEN_JAVADOC_AUTOBRIEF YES)
set(DOXYGEN_HTML_DYNAMIC_MENUS NO)
set(DOXYGEN_SEARCHENGINE NO)
set(DOXYGEN_GENERATE_LATEX NO)
set(DOXYGEN_HAVE_DOT NO)
set(DOXYGEN_OUTPUT_DIRECTORY ${PROJECT_BINARY_DIR}/api)
doxygen_add_docs(api_pages
  ${PROJECT_SOURCE_DIR}/include ${PROJECT_SOURCE_DIR}/docs/integrating.md ${PROJECT_SOURCE_DIR}/docs/operators.md
  ${PROJECT_SOURCE_DIR}/docs/exactness.md ${PROJECT_SOURCE_DIR}/docs/recording.md ${PROJECT_SOURCE_DIR}/docs/python.md
  COMMENT "Generating API pages in ${DOXYGEN_OUTPUT_DIRECTORY}/html")
install(DIRECTORY ${DOXYGEN_OUTPUT_DIRECTORY}/html DESTINATION ${CMAKE_INSTALL_DOCDIR} OPTIONAL)
