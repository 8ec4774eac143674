# Building for others: libraries, headers, CMake package files, pkg-config files.
# Debian packages are in Package.cmake.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# vision_objects(NAME SOURCES ... LIBRARIES ...)
# Compiles the sources once, for whichever libraries are made of them.
function(vision_objects name)
  cmake_parse_arguments(ARG "" "" "SOURCES;LIBRARIES" ${ARGN})
  list(TRANSFORM ARG_SOURCES PREPEND ${CMAKE_CURRENT_SOURCE_DIR}/)
  add_library(${name} OBJECT ${ARG_SOURCES})
  target_compile_features(${name} PUBLIC cxx_std_20)
  target_link_libraries(${name} PRIVATE ${ARG_LIBRARIES} vision_developer)
  target_include_directories(${name} PRIVATE ${PROJECT_SOURCE_DIR})
  set_target_properties(${name} PROPERTIES POSITION_INDEPENDENT_CODE ON)
  if(VISION_SHARED)
    target_compile_options(${name} PRIVATE -fvisibility-inlines-hidden -fno-semantic-interposition)
  endif()
endfunction()

# vision_library(NAME EXPORT_NAME name INCLUDE_PREFIX folder PC file
#                SOURCES ... ROOMS ... PUBLIC ... PRIVATE ... [BASE objects]
#                [NEEDS our libraries] [FORCED_HEADERS ...])
# Compiles the sources once, into NAME_objects, and makes of them the static
# library NAME, the shared library NAME_shared, or both: what lies in this tree
# reaches into what a shared library hides, and what is installed is shared when
# VISION_SHARED is on. vision::EXPORT_NAME is what the rest of the tree links.
#
# BASE is what our libraries have in common. Every shared library hides a copy of
# its own; of static ones it is in the one that NEEDS no other.
#
# Installed are all headers that lie in the folders ROOMS themselves, and
# FORCED_HEADERS, which templates in those need. Both are relative to this folder;
# headers keep their place in the project below INCLUDE_PREFIX.
function(vision_library name)
  cmake_parse_arguments(ARG "" "EXPORT_NAME;INCLUDE_PREFIX;PC;BASE"
    "SOURCES;ROOMS;FORCED_HEADERS;PUBLIC;PRIVATE;NEEDS" ${ARGN})
  set(in_tree _shared)
  if(NOT VISION_SHARED OR VISION_TESTS OR VISION_EXAMPLES OR VISION_TOOLS OR VISION_BENCH)
    add_library(${name} STATIC)
    set(in_tree "")
  endif()
  if(VISION_SHARED)
    add_library(${name}_shared SHARED)
  endif()
  add_library(vision::${ARG_EXPORT_NAME} ALIAS ${name}${in_tree})

  list(TRANSFORM ARG_NEEDS APPEND "${in_tree}" OUTPUT_VARIABLE needs)
  vision_objects(${name}_objects SOURCES ${ARG_SOURCES} LIBRARIES ${ARG_PUBLIC} ${ARG_PRIVATE} ${needs})
  list(TRANSFORM ARG_ROOMS APPEND /*.hpp OUTPUT_VARIABLE public)
  file(GLOB headers CONFIGURE_DEPENDS ${public})
  list(TRANSFORM ARG_FORCED_HEADERS PREPEND ${CMAKE_CURRENT_SOURCE_DIR}/ OUTPUT_VARIABLE forced)
  list(APPEND headers ${forced})
  foreach(suffix IN ITEMS "" _shared)
    if(TARGET ${name}${suffix})
      vision_link(${name} "${suffix}" "${headers}")
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
function(vision_link name suffix headers)
  set(target ${name}${suffix})
  target_sources(${target} PRIVATE $<TARGET_OBJECTS:${name}_objects>
    PUBLIC FILE_SET HEADERS BASE_DIRS ${PROJECT_SOURCE_DIR} FILES ${headers})
  if(ARG_BASE AND (suffix OR NOT ARG_NEEDS))
    target_sources(${target} PRIVATE $<TARGET_OBJECTS:${ARG_BASE}>)
  endif()
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
  vision_install_pc(${ARG_PC} development)
endfunction()

# Installs cmake/FILE.in for pkg-config.
function(vision_install_pc file component)
  # spdlog for its flags, and what a static library links. Not Requires.private: with
  # --static that would ask for static libraries of everything below it.
  set(PC_REQUIRES "Requires: spdlog")
  if(NOT VISION_SHARED)
    set(PC_REQUIRES "Requires: libcurl libssl libcrypto spdlog fmt")
  endif()
  # Relative to the prefix also when the folders were given as absolute paths.
  file(RELATIVE_PATH PC_PREFIX ${CMAKE_INSTALL_FULL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
  file(RELATIVE_PATH PC_LIBDIR ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_LIBDIR})
  file(RELATIVE_PATH PC_INCLUDEDIR ${CMAKE_INSTALL_PREFIX} ${CMAKE_INSTALL_FULL_INCLUDEDIR})
  configure_file(${PROJECT_SOURCE_DIR}/cmake/${file}.in ${PROJECT_BINARY_DIR}/${file} @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${file} DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT ${component})
endfunction()

function(vision_install_package_files)
  set(folder ${CMAKE_INSTALL_LIBDIR}/cmake/vision)
  configure_package_config_file(cmake/visionConfig.cmake.in ${PROJECT_BINARY_DIR}/visionConfig.cmake
    INSTALL_DESTINATION ${folder})
  write_basic_package_version_file(${PROJECT_BINARY_DIR}/visionConfigVersion.cmake COMPATIBILITY SameMinorVersion)
  install(FILES ${PROJECT_BINARY_DIR}/visionConfig.cmake ${PROJECT_BINARY_DIR}/visionConfigVersion.cmake
    DESTINATION ${folder} COMPONENT development)
endfunction()
