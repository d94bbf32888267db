# Installs the module, the host library with its headers and orogen, with a
# CMake package (find_package(BaseKit64) gives BaseKit64::host) and a
# pkg-config file (basekit64.pc).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(BASEKIT64_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/basekit64)
set(BASEKIT64_INSTALL_MODULEDIR ${CMAKE_INSTALL_LIBDIR}/basekit64)
set(BASEKIT64_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/BaseKit64)

# The module: beside orogen on Windows, in lib/basekit64/ elsewhere (where an
# installed orogen looks for it).
install(TARGETS BaseKit64 RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
                          LIBRARY DESTINATION ${BASEKIT64_INSTALL_MODULEDIR})

if(TARGET basekit_host AND TARGET orogen)
  install(TARGETS orogen RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

  # The host and the static libraries under it, named BaseKit64::host,
  # ::imageio and ::framework once installed.
  set(_libraries basekit_host basekit_imageio basekit_framework)
  foreach(_library ${_libraries})
    string(REPLACE "basekit_" "" _name ${_library})
    # The source folder becomes the installed include folder; other folders
    # (a library's own, such as libgeotiff's) stay.
    get_target_property(_includes ${_library} INTERFACE_INCLUDE_DIRECTORIES)
    list(REMOVE_ITEM _includes ${PROJECT_SOURCE_DIR})
    set_target_properties(${_library} PROPERTIES
      EXPORT_NAME ${_name}
      INTERFACE_INCLUDE_DIRECTORIES
        "$<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>;$<INSTALL_INTERFACE:${BASEKIT64_INSTALL_INCLUDEDIR}>;${_includes}")
  endforeach()
  install(TARGETS ${_libraries} EXPORT BaseKit64Targets
          ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
  foreach(_folder host framework)
    install(DIRECTORY ${PROJECT_SOURCE_DIR}/${_folder}/ DESTINATION ${BASEKIT64_INSTALL_INCLUDEDIR}/${_folder}
            FILES_MATCHING PATTERN "*.h")
  endforeach()

  # What the consumer's find_package must find again for the static libraries.
  get_target_property(_imageio_links basekit_imageio INTERFACE_LINK_LIBRARIES)
  set(BASEKIT64_NEEDS_PNG OFF)
  set(BASEKIT64_NEEDS_EXR "")
  set(BASEKIT64_NEEDS_TIFF OFF)
  set(_pc_requires "nlohmann_json")
  if("PNG::PNG" IN_LIST _imageio_links)
    set(BASEKIT64_NEEDS_PNG ON)
    # ImageIO calls zlib itself beside libpng.
    string(APPEND _pc_requires " libpng zlib")
  endif()
  if("OpenEXR::OpenEXR" IN_LIST _imageio_links)
    set(BASEKIT64_NEEDS_EXR CONFIG)
    string(APPEND _pc_requires " OpenEXR")
  elseif("PkgConfig::OPENEXR" IN_LIST _imageio_links)
    set(BASEKIT64_NEEDS_EXR PKGCONFIG)
    string(APPEND _pc_requires " OpenEXR")
  endif()

  if("TIFF::TIFF" IN_LIST _imageio_links)
    set(BASEKIT64_NEEDS_TIFF ON)
    string(APPEND _pc_requires " libtiff-4")
  endif()

  install(EXPORT BaseKit64Targets NAMESPACE BaseKit64:: DESTINATION ${BASEKIT64_INSTALL_CMAKEDIR})
  configure_package_config_file(
    ${PROJECT_SOURCE_DIR}/cmake/BaseKit64Config.cmake.in
    ${CMAKE_CURRENT_BINARY_DIR}/BaseKit64Config.cmake
    INSTALL_DESTINATION ${BASEKIT64_INSTALL_CMAKEDIR}
    PATH_VARS BASEKIT64_INSTALL_MODULEDIR CMAKE_INSTALL_BINDIR)
  write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/BaseKit64ConfigVersion.cmake
                                   COMPATIBILITY SameMajorVersion)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/BaseKit64Config.cmake
                ${CMAKE_CURRENT_BINARY_DIR}/BaseKit64ConfigVersion.cmake
          DESTINATION ${BASEKIT64_INSTALL_CMAKEDIR})

  # The prefix as seen from the .pc file, so that --prefix at install time holds.
  file(RELATIVE_PATH BASEKIT64_PC_UP /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
  set(BASEKIT64_PC_REQUIRES ${_pc_requires})
  set(BASEKIT64_PC_LIBS "-lbasekit_host -lbasekit_imageio -lbasekit_framework ${CMAKE_DL_LIBS_FLAG} -pthread")
  if(CMAKE_DL_LIBS)
    set(BASEKIT64_PC_LIBS "-lbasekit_host -lbasekit_imageio -lbasekit_framework -l${CMAKE_DL_LIBS} -pthread")
  endif()
  if(BASEKIT64_NEEDS_TIFF)
    # libgeotiff has no pkg-config file of its own.
    string(APPEND BASEKIT64_PC_LIBS " -lgeotiff")
  endif()
  configure_file(${PROJECT_SOURCE_DIR}/cmake/basekit64.pc.in ${CMAKE_CURRENT_BINARY_DIR}/basekit64.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/basekit64.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endif()
