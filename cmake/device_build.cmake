# The device build (TARSK_DEVICE_BUILD, set by cmake/wince-armv4i.cmake): tarsk.exe from src/ alone,
# with the CE SDK's Visual C++. Nothing of the workstation (sim/, tools/, tests/, bench/) is built.
if(NOT WINCE OR NOT MSVC)
  message(FATAL_ERROR "the device build needs the Visual C++ of a Windows CE SDK, not ${CMAKE_CXX_COMPILER_ID} "
                      "for ${CMAKE_SYSTEM_NAME}: configure with -DCMAKE_TOOLCHAIN_FILE=cmake/wince-armv4i.cmake "
                      "and a generator for the SDK (see the README)")
endif()

# Mini-XML built with the same SDK (its headers and its static or import library).
set(TARSK_MXML_DIR "" CACHE PATH "Mini-XML built for the device: include/mxml.h and lib/mxmlstat.lib (or mxml1.lib)")
find_path(TARSK_MXML_INCLUDE mxml.h HINTS "${TARSK_MXML_DIR}/include" "${TARSK_MXML_DIR}" NO_CMAKE_FIND_ROOT_PATH)
find_library(TARSK_MXML_LIBRARY NAMES mxmlstat mxml1 mxml HINTS "${TARSK_MXML_DIR}/lib" "${TARSK_MXML_DIR}"
             NO_CMAKE_FIND_ROOT_PATH)
if(NOT TARSK_MXML_INCLUDE OR NOT TARSK_MXML_LIBRARY)
  message(FATAL_ERROR "no Mini-XML for the device: build it with the same SDK and give its folder with "
                      "-DTARSK_MXML_DIR=... (include/mxml.h, lib/mxmlstat.lib or mxml1.lib)")
endif()

# No exceptions and no RTTI: CMake's CE defaults add /EHsc (and /GR under the old CMP0117), which
# would only be overridden with a warning, so they are taken out here.
foreach(flag /EHsc /GR)
  string(REGEX REPLACE "(^| )${flag}( |$)" " " CMAKE_CXX_FLAGS "${CMAKE_CXX_FLAGS}")
endforeach()
# The system is coredll.lib; corelibc.lib is the C runtime of these compilers (with WinMainCRTStartup).
# CMake's CE default also names ole32, oleaut32, uuid and commctrl, which the program does not use.
set(CMAKE_CXX_STANDARD_LIBRARIES "coredll.lib corelibc.lib")
# CE has no desktop runtime DLL to choose (/MD, /MT): no runtime flag.
set(CMAKE_MSVC_RUNTIME_LIBRARY "")

file(GLOB_RECURSE TARSK_DEVICE_SOURCES CONFIGURE_DEPENDS src/*.cpp)
# WIN32: the CE C runtime's WinMainCRTStartup is the entry, and it calls WinMain (wide command line).
add_executable(tarsk WIN32 ${TARSK_DEVICE_SOURCES})
target_include_directories(tarsk PRIVATE src ${CMAKE_BINARY_DIR}/generated ${TARSK_MXML_INCLUDE})
target_compile_definitions(tarsk PRIVATE UNICODE _UNICODE)
target_compile_options(tarsk PRIVATE /GR- /EHs-c- /W3)
target_link_libraries(tarsk PRIVATE ${TARSK_MXML_LIBRARY})
