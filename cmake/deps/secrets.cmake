# Digests and Base64 peers come from OpenSSL's libcrypto, calendar questions
# from ICU's i18n library (both used privately by the runtime); the secret
# store reaches the Secret Service through libsecret (the Linux adapters).
fennick_private_pkg(CRYPTO libcrypto Runtime)
fennick_private_pkg(ICUI18N icu-i18n Runtime)
fennick_private_pkg(SECRET libsecret-1 Platform)

# Tests switch ICU's default time zone and talk to the test keyring directly.
list(APPEND FENNICK_TEST_LIBS PkgConfig::ICUI18N PkgConfig::SECRET)

if(FENNICK_BUILD_BENCHMARKS)
  pkg_check_modules(SODIUM REQUIRED IMPORTED_TARGET libsodium)
  list(APPEND FENNICK_BENCH_LIBS PkgConfig::CRYPTO PkgConfig::SECRET PkgConfig::SODIUM)
endif()
