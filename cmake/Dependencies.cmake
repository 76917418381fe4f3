# Every dependency comes from the system's packages; nothing is vendored.
find_package(Threads REQUIRED)
find_package(Qt5 5.15 REQUIRED COMPONENTS Core Gui)
find_package(DCMTK REQUIRED CONFIG)
find_package(PkgConfig REQUIRED)
pkg_check_modules(LIBDEFLATE REQUIRED IMPORTED_TARGET libdeflate)
pkg_check_modules(LIBLZMA REQUIRED IMPORTED_TARGET liblzma)
# The study catalog: SQLite embedded, PostgreSQL for shared catalogs.
pkg_check_modules(SQLITE3 REQUIRED IMPORTED_TARGET sqlite3)
pkg_check_modules(LIBPQ REQUIRED IMPORTED_TARGET libpq)
find_package(CURL 7.68 REQUIRED)
find_package(OpenSSL REQUIRED)
