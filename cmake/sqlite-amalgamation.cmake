# SQLite built from its amalgamation (sqlite3.c and sqlite3.h in VELMAR_SQLITE_SOURCE) as the
# target SQLite::SQLite3, in place of the system's library. scripts/cross-build fetches the
# amalgamation into the build folder and checks it against its pinned SHA-256 first.
#
# The options leave out what velmar never asks of SQLite, so that the recorder does not carry
# it (bytes saved in the static armhf velmar, measured one by one; see docs/ARCHITECTURE.md
# "Program size"). Kept: the threading mode velmar needs. Every connection velmar opens is
# used by one thread at a time (the queue's calls are serialised by its own lock, and each
# read-only look at the file opens a connection of its own), but several connections may be
# open at once in different threads: SQLITE_THREADSAFE=2 keeps the library's global locks and
# drops only the per-connection ones.
if(NOT EXISTS "${VELMAR_SQLITE_SOURCE}/sqlite3.c" OR NOT EXISTS "${VELMAR_SQLITE_SOURCE}/sqlite3.h")
  message(FATAL_ERROR "VELMAR_SQLITE_SOURCE=${VELMAR_SQLITE_SOURCE} holds no sqlite3.c and sqlite3.h")
endif()
add_library(velmar_sqlite3 STATIC "${VELMAR_SQLITE_SOURCE}/sqlite3.c")
target_include_directories(velmar_sqlite3 SYSTEM PUBLIC "${VELMAR_SQLITE_SOURCE}")
target_compile_definitions(velmar_sqlite3 PRIVATE
  SQLITE_THREADSAFE=2
  SQLITE_DEFAULT_MEMSTATUS=0          # no allocation statistics (and no lock around each malloc)
  SQLITE_DQS=0                        # "x" is an identifier only; our SQL quotes strings with '
  SQLITE_LIKE_DOESNT_MATCH_BLOBS
  SQLITE_USE_ALLOCA
  SQLITE_OMIT_AUTHORIZATION
  SQLITE_OMIT_COMPILEOPTION_DIAGS
  SQLITE_OMIT_COMPLETE
  SQLITE_OMIT_DATETIME_FUNCS
  SQLITE_OMIT_DECLTYPE
  SQLITE_OMIT_DEPRECATED
  SQLITE_OMIT_DESERIALIZE
  SQLITE_OMIT_GET_TABLE
  SQLITE_OMIT_INCRBLOB
  SQLITE_OMIT_INTROSPECTION_PRAGMAS
  SQLITE_OMIT_JSON
  SQLITE_OMIT_LOAD_EXTENSION
  SQLITE_OMIT_PROGRESS_CALLBACK
  SQLITE_OMIT_SHARED_CACHE
  SQLITE_OMIT_TCL_VARIABLE
  SQLITE_OMIT_TRACE
  SQLITE_OMIT_UTF16)
# The amalgamation is not our code: no warnings of ours, and small rather than fast (the queue
# makes a few statements a second at most).
target_compile_options(velmar_sqlite3 PRIVATE -Os -w)
target_link_libraries(velmar_sqlite3 PUBLIC Threads::Threads m)
add_library(SQLite::SQLite3 ALIAS velmar_sqlite3)
