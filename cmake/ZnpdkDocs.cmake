# `docs`: the API reference of include/znpdk/znpdklib.h and its version header,
# rendered by Doxygen.
# Any warning fails it, among them an export without documentation.
find_package(Doxygen QUIET)
if(DOXYGEN_FOUND)
  set(ZNPDK_DOXYGEN_OUT ${CMAKE_BINARY_DIR}/docs)
  configure_file(${CMAKE_SOURCE_DIR}/cmake/Doxyfile.in ${CMAKE_BINARY_DIR}/Doxyfile @ONLY)
  add_custom_target(docs
    COMMAND ${DOXYGEN_EXECUTABLE} ${CMAKE_BINARY_DIR}/Doxyfile
    WORKING_DIRECTORY ${CMAKE_SOURCE_DIR}
    DEPENDS ${CMAKE_SOURCE_DIR}/include/znpdk/znpdklib.h ${ZNPDK_GENERATED_INCLUDE_DIR}/znpdk_version.h
            ${CMAKE_BINARY_DIR}/Doxyfile
    COMMENT "API reference in ${ZNPDK_DOXYGEN_OUT}/html"
    VERBATIM)
endif()
