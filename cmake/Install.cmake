# Building for others: shared libraries with a SONAME unless tests are built or
# BUILD_SHARED_LIBS says otherwise; headers, CMake package files, pkg-config
# files; Debian packages by cpack.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(VISION_LIBRARY_TYPE STATIC)
if(VISION_SHARED)
  set(VISION_LIBRARY_TYPE SHARED)
endif()

# vision_library(TARGET): the properties that our libraries have in common.
function(vision_library target)
  set_target_properties(${target} PROPERTIES
    POSITION_INDEPENDENT_CODE ON
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
  if(VISION_SHARED)
    set(map ${PROJECT_SOURCE_DIR}/cmake/exports.map)
    target_link_options(${target} PRIVATE -Wl,--version-script=${map} -Wl,--no-undefined)
    set_target_properties(${target} PROPERTIES LINK_DEPENDS ${map})
    target_compile_options(${target} PRIVATE -fvisibility-inlines-hidden -fno-semantic-interposition)
  endif()
endfunction()

# vision_install(TARGET EXPORT INCLUDE_PREFIX PC HEADERS...): HEADERS are paths
# relative to the project and keep their folders below INCLUDE_PREFIX.
function(vision_install target export prefix pc)
  install(TARGETS ${target} EXPORT ${export}
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT development)
  foreach(header IN LISTS ARGN)
    cmake_path(GET header PARENT_PATH folder)
    install(FILES ${PROJECT_SOURCE_DIR}/${header} DESTINATION ${prefix}/${folder} COMPONENT development)
  endforeach()
  install(EXPORT ${export} FILE ${export}.cmake NAMESPACE vision::
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/vision COMPONENT development)
  configure_file(${PROJECT_SOURCE_DIR}/cmake/${pc}.in ${PROJECT_BINARY_DIR}/${pc} @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${pc} DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endfunction()

function(vision_install_package_files)
  set(folder ${CMAKE_INSTALL_LIBDIR}/cmake/vision)
  configure_package_config_file(cmake/visionConfig.cmake.in ${PROJECT_BINARY_DIR}/visionConfig.cmake
    INSTALL_DESTINATION ${folder})
  write_basic_package_version_file(${PROJECT_BINARY_DIR}/visionConfigVersion.cmake COMPATIBILITY SameMinorVersion)
  install(FILES ${PROJECT_BINARY_DIR}/visionConfig.cmake ${PROJECT_BINARY_DIR}/visionConfigVersion.cmake
    DESTINATION ${folder} COMPONENT development)
endfunction()
