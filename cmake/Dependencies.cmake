# Every dependency is a Debian package installed by scripts/setup.
# -pthread on every target alike: a precompiled header is used only with the flags it was made
# with, and some packages (RE2) bring -pthread into the targets that link them.
set(THREADS_PREFER_PTHREAD_FLAG ON)
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
