# Every dependency is a Debian package installed by scripts/setup.
find_package(Threads REQUIRED)
find_package(fmt REQUIRED)
find_package(spdlog REQUIRED)
find_package(nlohmann_json 3.10 REQUIRED)
find_package(OpenSSL 3 REQUIRED)
find_package(ZLIB REQUIRED)
find_package(SQLite3 REQUIRED)
find_package(PkgConfig REQUIRED)
find_package(ICU REQUIRED COMPONENTS uc i18n)
pkg_check_modules(RE2 REQUIRED IMPORTED_TARGET re2)
# RE2's package asks for -pthread, which threads need no longer (glibc has them built in). Left
# in, it would reach only the targets that link RE2, and a precompiled header made with it is
# refused by the targets made without (the test programs of the lower areas).
if(TARGET PkgConfig::RE2)
  get_target_property(lmkit_re2_options PkgConfig::RE2 INTERFACE_COMPILE_OPTIONS)
  if(lmkit_re2_options)
    list(REMOVE_ITEM lmkit_re2_options -pthread)
    set_target_properties(PkgConfig::RE2 PROPERTIES INTERFACE_COMPILE_OPTIONS "${lmkit_re2_options}")
  endif()
endif()
pkg_check_modules(PLIST REQUIRED IMPORTED_TARGET libplist-2.0)
# sd-bus: carrier, radio and Wi-Fi facts from ModemManager and NetworkManager over D-Bus.
pkg_check_modules(SYSTEMD REQUIRED IMPORTED_TARGET libsystemd)

# Standalone Asio ships headers only and no CMake package.
find_path(ASIO_INCLUDE_DIR asio.hpp REQUIRED)
if(NOT TARGET asio::asio)
  add_library(asio::asio INTERFACE IMPORTED)
  set_target_properties(asio::asio PROPERTIES
    INTERFACE_INCLUDE_DIRECTORIES "${ASIO_INCLUDE_DIR}"
    INTERFACE_COMPILE_DEFINITIONS "ASIO_STANDALONE;ASIO_NO_DEPRECATED")
endif()
