# Building for others: libraries, headers, CMake package files, pkg-config files.
# Debian packages are in Package.cmake.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# vision_library(NAME EXPORT_NAME name INCLUDE_PREFIX folder PC file
#                SOURCES ... HEADERS ... PUBLIC ... PRIVATE ... [NEEDS our libraries])
# Compiles the sources once, into NAME_objects, and makes of them the static
# library NAME, the shared library NAME_shared, or both: tests reach into what a
# shared library hides, and what is installed is shared when VISION_SHARED is on.
# vision::EXPORT_NAME is what the rest of the tree links. HEADERS are the public
# ones, relative to the project; they keep their folders below INCLUDE_PREFIX.
function(vision_library name)
  cmake_parse_arguments(ARG "" "EXPORT_NAME;INCLUDE_PREFIX;PC" "SOURCES;HEADERS;PUBLIC;PRIVATE;NEEDS" ${ARGN})
  set(in_tree _shared)
  if(NOT VISION_SHARED OR VISION_TESTS)
    add_library(${name} STATIC)
    set(in_tree "")
  endif()
  if(VISION_SHARED)
    add_library(${name}_shared SHARED)
  endif()
  add_library(vision::${ARG_EXPORT_NAME} ALIAS ${name}${in_tree})

  list(TRANSFORM ARG_SOURCES PREPEND ${CMAKE_CURRENT_SOURCE_DIR}/)
  add_library(${name}_objects OBJECT ${ARG_SOURCES})
  target_compile_features(${name}_objects PUBLIC cxx_std_20)
  list(TRANSFORM ARG_NEEDS APPEND "${in_tree}" OUTPUT_VARIABLE needs)
  target_link_libraries(${name}_objects PRIVATE ${ARG_PUBLIC} ${ARG_PRIVATE} ${needs} vision_developer)
  target_include_directories(${name}_objects PRIVATE ${PROJECT_SOURCE_DIR})
  set_target_properties(${name}_objects PROPERTIES POSITION_INDEPENDENT_CODE ON)
  if(VISION_SHARED)
    target_compile_options(${name}_objects PRIVATE -fvisibility-inlines-hidden -fno-semantic-interposition)
  endif()
  foreach(suffix IN ITEMS "" _shared)
    if(TARGET ${name}${suffix})
      vision_link(${name} "${suffix}")
    endif()
  endforeach()

  if(VISION_INSTALL)
    set(installed ${name})
    if(VISION_SHARED)
      set(installed ${name}_shared)
    endif()
    vision_install(${installed})
  endif()
endfunction()

# Of vision_library: one kind of the library, from its ARG_ variables.
function(vision_link name suffix)
  set(target ${name}${suffix})
  list(TRANSFORM ARG_HEADERS PREPEND ${PROJECT_SOURCE_DIR}/ OUTPUT_VARIABLE headers)
  target_sources(${target} PRIVATE $<TARGET_OBJECTS:${name}_objects>
    PUBLIC FILE_SET HEADERS BASE_DIRS ${PROJECT_SOURCE_DIR} FILES ${headers})
  list(TRANSFORM ARG_NEEDS APPEND "${suffix}" OUTPUT_VARIABLE needs)
  target_compile_features(${target} PUBLIC cxx_std_20)
  target_link_libraries(${target} PUBLIC ${ARG_PUBLIC} ${needs} PRIVATE ${ARG_PRIVATE})
  set_target_properties(${target} PROPERTIES
    OUTPUT_NAME ${name} EXPORT_NAME ${ARG_EXPORT_NAME} LINKER_LANGUAGE CXX
    VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
  if(suffix)
    set(map ${PROJECT_SOURCE_DIR}/cmake/exports.map)
    target_link_options(${target} PRIVATE -Wl,--version-script=${map})
    if(NOT VISION_SANITIZE)
      target_link_options(${target} PRIVATE -Wl,--no-undefined)
    endif()
    set_target_properties(${target} PROPERTIES LINK_DEPENDS ${map})
    if(ARG_NEEDS)
      set_target_properties(${target} PROPERTIES INSTALL_RPATH $ORIGIN)  # in whatever prefix
    endif()
  endif()
endfunction()

# Of vision_library: what is installed of one library, from its ARG_ variables.
function(vision_install target)
  set_target_properties(${target} PROPERTIES VERIFY_INTERFACE_HEADER_SETS ON)
  set(export vision-${ARG_EXPORT_NAME}-targets)
  install(TARGETS ${target} EXPORT ${export}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development
    FILE_SET HEADERS DESTINATION ${ARG_INCLUDE_PREFIX} COMPONENT development)
  install(EXPORT ${export} NAMESPACE vision::
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/vision COMPONENT development)
  # What a static library links. Not Requires.private: with --static that would ask
  # for static libraries of everything below it.
  set(PC_REQUIRES "")
  if(NOT VISION_SHARED)
    set(PC_REQUIRES "Requires: libcurl libcrypto spdlog fmt")
  endif()
  # Relative to the prefix also when the folders were given as absolute paths.
  file(RELATIVE_PATH PC_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
  file(RELATIVE_PATH PC_LIBDIR ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_LIBDIR})
  file(RELATIVE_PATH PC_INCLUDEDIR ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_INCLUDEDIR})
  configure_file(${PROJECT_SOURCE_DIR}/cmake/${ARG_PC}.in ${PROJECT_BINARY_DIR}/${ARG_PC} @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${ARG_PC} DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endfunction()

function(vision_install_package_files)
  set(folder ${CMAKE_INSTALL_LIBDIR}/cmake/vision)
  configure_package_config_file(cmake/visionConfig.cmake.in ${PROJECT_BINARY_DIR}/visionConfig.cmake
    INSTALL_DESTINATION ${folder})
  write_basic_package_version_file(${PROJECT_BINARY_DIR}/visionConfigVersion.cmake COMPATIBILITY SameMinorVersion)
  install(FILES ${PROJECT_BINARY_DIR}/visionConfig.cmake ${PROJECT_BINARY_DIR}/visionConfigVersion.cmake
    DESTINATION ${folder} COMPONENT development)
endfunction()
