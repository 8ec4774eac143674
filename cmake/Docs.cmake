# The API reference: `cmake --build --preset docs` writes build/docs/html. The
# tests make it too, because an undocumented declaration is an error there.
option(VISION_DOCS "Make the API reference (target docs); needs doxygen" OFF)

if(VISION_DOCS OR VISION_TESTS)
  find_package(Doxygen REQUIRED)
  foreach(library IN ITEMS vision::vision vision::chromium)
    get_target_property(headers ${library} HEADER_SET)
    list(APPEND VISION_DOCS_INPUT ${headers})
  endforeach()
  list(JOIN VISION_DOCS_INPUT "\" \"" VISION_DOCS_INPUT)
  set(VISION_DOCS_INPUT "\"${VISION_DOCS_INPUT}\"")
  configure_file(docs/Doxyfile.in ${PROJECT_BINARY_DIR}/Doxyfile @ONLY)
  add_custom_target(docs
    COMMAND Doxygen::doxygen ${PROJECT_BINARY_DIR}/Doxyfile
    COMMENT "Making the API reference in ${PROJECT_BINARY_DIR}/html"
    VERBATIM)
endif()
if(VISION_EXAMPLES)
  add_subdirectory(docs/programs)
endif()
