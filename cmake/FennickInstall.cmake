# Installs the libraries, the headers under include/fennick, the CMake package
# (find_package(Fennick)) and fennick.pc for pkg-config.
include(CMakePackageConfigHelpers)

install(TARGETS fennick fennick_static EXPORT FennickTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR}
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(TARGETS fennick_flags EXPORT FennickTargets)
install(TARGETS fennick_tool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# Headers keep their place in the tree: Sources/fennick/... becomes include/fennick/...
foreach(header ${FENNICK_PUBLIC_HEADERS} ${FENNICK_GTK_PUBLIC_HEADERS})
  get_filename_component(dir ${header} DIRECTORY)
  install(FILES ${FENNICK_SOURCE_ROOT}/${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${dir})
endforeach()

set(FENNICK_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/Fennick)
install(EXPORT FennickTargets NAMESPACE Fennick:: DESTINATION ${FENNICK_CMAKE_DIR})
configure_package_config_file(${CMAKE_SOURCE_DIR}/cmake/FennickConfig.cmake.in
  ${CMAKE_BINARY_DIR}/FennickConfig.cmake INSTALL_DESTINATION ${FENNICK_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/FennickConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_BINARY_DIR}/FennickConfig.cmake
              ${CMAKE_BINARY_DIR}/FennickConfigVersion.cmake
        DESTINATION ${FENNICK_CMAKE_DIR})

set(FENNICK_PC_REQUIRES_PRIVATE "")
foreach(entry ${FENNICK_PRIVATE_PKG_MODULES})
  string(REGEX REPLACE "^[^=]*=" "" module ${entry})
  string(APPEND FENNICK_PC_REQUIRES_PRIVATE " ${module}")
endforeach()
configure_file(${CMAKE_SOURCE_DIR}/cmake/fennick.pc.in ${CMAKE_BINARY_DIR}/fennick.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/fennick.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# fennick-gtk: its library, headers, targets (Fennick::gtk, found by the
# package when GTK 4 is there) and fennick-gtk.pc.
if(TARGET fennick_gtk)
  install(TARGETS fennick_gtk fennick_gtk_static EXPORT FennickGtkTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
  install(EXPORT FennickGtkTargets NAMESPACE Fennick:: DESTINATION ${FENNICK_CMAKE_DIR})
  install(FILES ${CMAKE_SOURCE_DIR}/cmake/FennickGtk.cmake DESTINATION ${FENNICK_CMAKE_DIR})
  configure_file(${CMAKE_SOURCE_DIR}/cmake/fennick-gtk.pc.in ${CMAKE_BINARY_DIR}/fennick-gtk.pc @ONLY)
  install(FILES ${CMAKE_BINARY_DIR}/fennick-gtk.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endif()
