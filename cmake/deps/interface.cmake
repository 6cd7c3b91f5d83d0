# The interface area: GLib serves the main queue (private to the Dispatch
# layer), GTK 4 draws the alerts of the fennick-gtk library.
fennick_private_pkg(GLIB glib-2.0 Dispatch)

option(FENNICK_BUILD_GTK "Build the GTK 4 backend (library fennick-gtk)" ON)
if(FENNICK_BUILD_GTK)
  pkg_check_modules(GTK4 REQUIRED IMPORTED_TARGET gtk4)
endif()

# The main-context tests drive GLib's loop themselves.
list(APPEND FENNICK_TEST_LIBS PkgConfig::GLIB)

# The main-queue benchmark measures GLib's own hand-over beside ours.
list(APPEND FENNICK_BENCH_LIBS PkgConfig::GLIB)
