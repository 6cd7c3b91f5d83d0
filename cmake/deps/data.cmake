# Data and formats: SQLite for the query helpers. The benchmarks compare the
# JSON reader with nlohmann::json (found by the top level already) and run
# Python's sqlite3 module as a separate process.
fennick_private_pkg(SQLITE sqlite3 Helpers)
list(APPEND FENNICK_TEST_LIBS PkgConfig::SQLITE)
if(FENNICK_BUILD_BENCHMARKS)
  list(APPEND FENNICK_BENCH_LIBS PkgConfig::SQLITE)
endif()
