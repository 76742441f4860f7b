# Toolchain file for tarsk.exe on the device: Windows CE 5.0 on ARM (ARMV4I), with the Visual C++ for
# ARM of Visual Studio 2005 or 2008 and a CE 5.0 SDK ("STANDARDSDK_500 (ARMV4I)" or the device
# maker's). It turns on TARSK_DEVICE_BUILD, under which the project builds only tarsk.exe from src/.
#
# Visual Studio 2008 with the SDK installed (CMake 3.25 to 3.29: its generator is gone from 3.30 on):
#
#   cmake -S . -B build/device -G "Visual Studio 9 2008" -A "STANDARDSDK_500 (ARMV4I)"
#         -DCMAKE_TOOLCHAIN_FILE=cmake/wince-armv4i.cmake -DTARSK_MXML_DIR=C:/ce/mxml
#   cmake --build build/device --config Release
#
# Or "NMake Makefiles" (any CMake from 3.25, Visual Studio 2005 or 2008), from a prompt whose PATH has
# the ARM compiler (VC\ce\bin\x86_arm) first, INCLUDE the SDK's include\ARMV4I, and LIB the SDK's
# lib\ARMV4I and VC\ce\lib\ARMV4I.

set(CMAKE_SYSTEM_NAME WindowsCE)
set(CMAKE_SYSTEM_VERSION 5.0)     # _WIN32_WCE=0x500, /subsystem:windowsce
set(CMAKE_SYSTEM_PROCESSOR ARMV4I)

# A Visual Studio generator builds for the platform named by -A: the SDK's name as Visual Studio
# lists it. Without -A, TARSK_CE_SDK (the standard SDK unless given).
set(TARSK_CE_SDK "STANDARDSDK_500 (ARMV4I)" CACHE STRING "the Windows CE 5.0 SDK that a Visual Studio generator builds for")
if(CMAKE_GENERATOR MATCHES "^Visual Studio" AND NOT CMAKE_GENERATOR_PLATFORM)
  set(CMAKE_GENERATOR_PLATFORM "${TARSK_CE_SDK}")
endif()

set(TARSK_DEVICE_BUILD ON)
