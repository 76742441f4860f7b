# The package key: 32 hex digits, the words k0, k1, k2, k3 of eight digits each. The device program
# and tarsk-pack both take it from here; override with -DTARSK_PACKAGE_KEY=... for a real build.
set(TARSK_PACKAGE_KEY "5EC0A11B9E3779B94F1BBCDC27D4EB2F" CACHE STRING "package key, 32 hex digits")
if(NOT TARSK_PACKAGE_KEY MATCHES "^[0-9A-Fa-f]+$")
  message(FATAL_ERROR "TARSK_PACKAGE_KEY must be 32 hex digits")
endif()
string(LENGTH "${TARSK_PACKAGE_KEY}" _len)
if(NOT _len EQUAL 32)
  message(FATAL_ERROR "TARSK_PACKAGE_KEY must be 32 hex digits, it has ${_len}")
endif()
foreach(_i 0 1 2 3)
  math(EXPR _off "${_i} * 8")
  string(SUBSTRING "${TARSK_PACKAGE_KEY}" ${_off} 8 TARSK_KEY_K${_i})
endforeach()
