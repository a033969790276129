# Every dependency is a Debian package; see README for the list.
find_package(PkgConfig REQUIRED)
find_package(Threads REQUIRED)
find_package(SQLite3 REQUIRED)
pkg_check_modules(UUID REQUIRED IMPORTED_TARGET uuid)
find_package(CURL REQUIRED)
find_package(OpenSSL REQUIRED)
find_package(simdjson CONFIG REQUIRED)
find_package(RapidJSON CONFIG REQUIRED)

# Linked privately: no public header includes any of them.
set(PACTIVO_PRIVATE_DEPENDENCIES SQLite::SQLite3 PkgConfig::UUID simdjson::simdjson CURL::libcurl
  OpenSSL::Crypto ${CMAKE_DL_LIBS})
# ICU only orders names for display, yet its 37 MB are most of what the
# library brings into an image: small images leave it out.
set(PACTIVO_ICU_PC_MODULES "")
if(PACTIVO_WITH_ICU)
  find_package(ICU REQUIRED COMPONENTS uc i18n)
  list(APPEND PACTIVO_PRIVATE_DEPENDENCIES ICU::uc ICU::i18n)
  set(PACTIVO_ICU_PC_MODULES " icu-uc icu-i18n")
endif()
