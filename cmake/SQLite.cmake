# SQLite for korvtool's update history: the target korvsdk_sqlite3.
#
# Linux: Debian's libsqlite3 (libsqlite3-dev; the package korvsdk-tools then
# depends on libsqlite3-0 through dpkg-shlibdeps).
#
# Windows: Debian has no SQLite built for mingw-w64. scripts/install-deps.sh
# makes SQLite's amalgamation (one sqlite3.c) from Debian's own source
# package of the SQLite the system has, and puts it into
# KORVSDK_SQLITE_AMALGAMATION; it is compiled here into a static library
# that korvtool.exe links (the DLL has no use for it). Its licence goes into
# the zip's licenses/ beside the others.
if(NOT CMAKE_CROSSCOMPILING)
  find_package(SQLite3 REQUIRED)
  add_library(korvsdk_sqlite3 INTERFACE)
  target_link_libraries(korvsdk_sqlite3 INTERFACE SQLite::SQLite3)
  return()
endif()

set(KORVSDK_SQLITE_AMALGAMATION /usr/local/share/korvsdk/sqlite3-amalgamation CACHE PATH
  "The folder with sqlite3.c, sqlite3.h and copyright (scripts/install-deps.sh makes it)")
foreach(_file sqlite3.c sqlite3.h copyright)
  if(NOT EXISTS ${KORVSDK_SQLITE_AMALGAMATION}/${_file})
    message(FATAL_ERROR "${KORVSDK_SQLITE_AMALGAMATION}/${_file} is missing: run scripts/install-deps.sh")
  endif()
endforeach()

add_library(korvsdk_sqlite3 STATIC ${KORVSDK_SQLITE_AMALGAMATION}/sqlite3.c)
# The history needs no extensions: SQLite then never loads a DLL. The
# source is SQLite's own: its warnings are not ours to fix.
target_compile_definitions(korvsdk_sqlite3 PRIVATE SQLITE_OMIT_LOAD_EXTENSION SQLITE_DQS=0
  SQLITE_THREADSAFE=1 SQLITE_DEFAULT_FOREIGN_KEYS=0)
target_compile_options(korvsdk_sqlite3 PRIVATE -w)
target_include_directories(korvsdk_sqlite3 SYSTEM INTERFACE ${KORVSDK_SQLITE_AMALGAMATION})
install(FILES ${KORVSDK_SQLITE_AMALGAMATION}/copyright DESTINATION licenses RENAME SQLite.txt)
