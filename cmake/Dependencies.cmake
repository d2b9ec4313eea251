# Third-party libraries, all from Debian packages (scripts/install-deps.sh).
find_package(PkgConfig REQUIRED)
pkg_check_modules(AUDIT REQUIRED IMPORTED_TARGET audit)
pkg_check_modules(AUPARSE REQUIRED IMPORTED_TARGET auparse)
pkg_check_modules(SQLITE3 REQUIRED IMPORTED_TARGET sqlite3)
pkg_check_modules(CURL REQUIRED IMPORTED_TARGET libcurl)
pkg_check_modules(LZMA REQUIRED IMPORTED_TARGET liblzma)
pkg_check_modules(MAGIC REQUIRED IMPORTED_TARGET libmagic)
pkg_check_modules(PROXY REQUIRED IMPORTED_TARGET libproxy-1.0)
find_package(OpenSSL REQUIRED)
find_package(Protobuf REQUIRED)
find_package(Poco REQUIRED COMPONENTS Foundation Util JSON Crypto Net NetSSL)
find_package(RapidJSON REQUIRED)
find_package(Threads REQUIRED)

find_file(CORVID_MAGIC_DB magic.mgc PATHS /usr/lib/file /usr/share/misc NO_DEFAULT_PATH REQUIRED)

add_library(corvid_deps INTERFACE)
add_library(corvid::deps ALIAS corvid_deps)
target_include_directories(corvid_deps SYSTEM INTERFACE ${RapidJSON_INCLUDE_DIRS} ${RAPIDJSON_INCLUDE_DIRS})
target_compile_definitions(corvid_deps INTERFACE RAPIDJSON_HAS_STDSTRING=1)
target_link_libraries(corvid_deps INTERFACE
  PkgConfig::AUDIT PkgConfig::AUPARSE PkgConfig::SQLITE3 PkgConfig::CURL
  PkgConfig::LZMA PkgConfig::MAGIC PkgConfig::PROXY
  OpenSSL::SSL OpenSSL::Crypto protobuf::libprotobuf
  Poco::Foundation Poco::Util Poco::JSON Poco::Crypto Poco::Net Poco::NetSSL
  Threads::Threads)
