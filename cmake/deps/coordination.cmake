# The state machine, the proactor and the receptionist use nothing outside the
# runtime. Their benchmarks compare against Qt 5 Core, found only when
# benchmarks are built so that the library and its tests never need Qt.
if(FENNICK_BUILD_BENCHMARKS)
  find_package(Qt5Core REQUIRED)
  list(APPEND FENNICK_BENCH_LIBS Qt5::Core)
endif()
