# Processes, unpacker, system facts and reachability. The accessibility
# settings are the desktop's GSettings keys, read through GIO; the tests set
# them in GIO's memory backend.
fennick_private_pkg(GIO gio-2.0 Helpers)
if(FENNICK_BUILD_TESTS)
  list(APPEND FENNICK_TEST_LIBS PkgConfig::GIO)
endif()
