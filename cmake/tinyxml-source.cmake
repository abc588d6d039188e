# TinyXML built from its sources (tinyxml.cpp, tinyxmlparser.cpp, tinyxmlerror.cpp, tinystr.cpp
# and their headers in VELMAR_TINYXML_SOURCE) as the library velmar links, in place of the
# system's. scripts/cross-build fetches Debian's source package, security fixes included.
#
# Built without TIXML_USE_STL: with it, TinyXML's header and objects start the C++ standard
# streams, which bring libstdc++'s stream and locale code (about 280 KB) into a static program
# that otherwise never uses it. velmar's code reads TinyXML through const char* only, so it is
# the same code either way.
foreach(file tinyxml.cpp tinyxmlparser.cpp tinyxmlerror.cpp tinystr.cpp tinyxml.h tinystr.h)
  if(NOT EXISTS "${VELMAR_TINYXML_SOURCE}/${file}")
    message(FATAL_ERROR "VELMAR_TINYXML_SOURCE=${VELMAR_TINYXML_SOURCE} holds no ${file}")
  endif()
endforeach()
file(READ "${VELMAR_TINYXML_SOURCE}/tinyxml.h" velmar_tinyxml_header)
if(velmar_tinyxml_header MATCHES "#define[ \t]+TIXML_USE_STL")
  message(FATAL_ERROR "${VELMAR_TINYXML_SOURCE}/tinyxml.h forces TIXML_USE_STL")
endif()
add_library(velmar_tinyxml STATIC
  "${VELMAR_TINYXML_SOURCE}/tinyxml.cpp" "${VELMAR_TINYXML_SOURCE}/tinyxmlparser.cpp"
  "${VELMAR_TINYXML_SOURCE}/tinyxmlerror.cpp" "${VELMAR_TINYXML_SOURCE}/tinystr.cpp")
target_compile_options(velmar_tinyxml PRIVATE -Os -w)
set(TINYXML_INCLUDE_DIR "${VELMAR_TINYXML_SOURCE}")
set(TINYXML_LIBRARY velmar_tinyxml)
set(TINYXML_DEFINITIONS VELMAR_TINYXML_STL=0)
