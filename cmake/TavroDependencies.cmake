# The libraries that the rooms link; read by this build, and by those that use what it installs.

find_package(Threads REQUIRED)
find_package(OpenSSL 3 REQUIRED)
find_package(CURL REQUIRED)
find_package(LibArchive REQUIRED)
# Of the archive library only the tar reader is used: its static form brings that and nothing else,
# where the shared one loads a dozen libraries at every start.
find_library(TAVRO_STATIC_ARCHIVE libarchive.a)
find_library(TAVRO_STATIC_UTF8PROC libutf8proc.a)
find_package(nlohmann_json 3.11.2 REQUIRED)
find_package(PkgConfig REQUIRED)
pkg_check_modules(ZSTD REQUIRED IMPORTED_TARGET libzstd)
pkg_check_modules(UTF8PROC REQUIRED IMPORTED_TARGET libutf8proc)
