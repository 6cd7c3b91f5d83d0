# Part of the installed Fennick package: Fennick::gtk, the GTK 4 backend, for
# consumers that have GTK 4's development files.
find_package(PkgConfig QUIET)
if(PkgConfig_FOUND AND NOT TARGET PkgConfig::GTK4)
  pkg_check_modules(GTK4 QUIET IMPORTED_TARGET gtk4)
endif()
if(TARGET PkgConfig::GTK4)
  include("${CMAKE_CURRENT_LIST_DIR}/FennickGtkTargets.cmake")
endif()
