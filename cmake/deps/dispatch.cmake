# Dispatch engine. oneTBB is a peer of the engine's benchmarks only.
if(FENNICK_BUILD_BENCHMARKS)
  find_package(TBB REQUIRED)
  list(APPEND FENNICK_BENCH_LIBS TBB::tbb)
endif()

# Every public Dispatch header compiles on its own: one that leaned on an
# include of its includer fails here. (The layer check refuses a public header
# that includes an Internal/ one, which is never installed.)
if(FENNICK_BUILD_TESTS)
  set(dispatch_dir ${CMAKE_SOURCE_DIR}/Sources/fennick/Dispatch)
  set(check_root ${CMAKE_BINARY_DIR}/dispatch-header-check)
  file(GLOB dispatch_headers CONFIGURE_DEPENDS RELATIVE ${dispatch_dir} ${dispatch_dir}/*.h)
  set(dispatch_checks "")
  foreach(header ${dispatch_headers})
    string(MAKE_C_IDENTIFIER ${header} stem)
    file(CONFIGURE OUTPUT ${check_root}/${stem}.cpp CONTENT "#include \"fennick/Dispatch/${header}\"\n")
    list(APPEND dispatch_checks ${check_root}/${stem}.cpp)
  endforeach()
  add_library(fennick_dispatch_header_check OBJECT ${dispatch_checks})
  target_include_directories(fennick_dispatch_header_check PRIVATE ${CMAKE_SOURCE_DIR}/Sources)
  target_compile_features(fennick_dispatch_header_check PRIVATE cxx_std_20)
  fennick_configure_target(fennick_dispatch_header_check)
  # What the layer declares public (known once every area has been read).
  function(fennick_dispatch_header_check_libs)
    target_link_libraries(fennick_dispatch_header_check PRIVATE ${FENNICK_LAYER_Dispatch_PUBLIC_LIBS})
  endfunction()
  cmake_language(DEFER DIRECTORY ${CMAKE_SOURCE_DIR} CALL fennick_dispatch_header_check_libs)
endif()
