# Cross build of the plug-in module for macOS x86-64 on a Linux machine, with
# clang and lld and the SDK that scripts/bootstrap-macos assembles. Pass that
# SDK's path as RAWFX_MACOS_SDK:
#
#   cmake -S . -B build-macos -G Ninja \
#     -DCMAKE_TOOLCHAIN_FILE=cmake/macos-x86_64.cmake -DRAWFX_MACOS_SDK=<sdk>
#
# On a Mac, configure without this file: Apple's tools and SDK do the same.
set(CMAKE_SYSTEM_NAME Darwin)
set(CMAKE_SYSTEM_PROCESSOR x86_64)

set(RAWFX_MACOS_SDK "" CACHE PATH "macOS SDK assembled by scripts/bootstrap-macos")
if(NOT IS_DIRECTORY "${RAWFX_MACOS_SDK}/usr/include")
  message(FATAL_ERROR "RAWFX_MACOS_SDK must name the SDK that scripts/bootstrap-macos prints")
endif()
# try_compile projects configure with this file too and need the path.
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES RAWFX_MACOS_SDK)

set(CMAKE_C_COMPILER clang)
set(CMAKE_CXX_COMPILER clang++)
set(CMAKE_C_COMPILER_TARGET x86_64-apple-macos10.13)
set(CMAKE_CXX_COMPILER_TARGET x86_64-apple-macos10.13)
set(CMAKE_OSX_ARCHITECTURES x86_64)
set(CMAKE_OSX_DEPLOYMENT_TARGET 10.13)
set(CMAKE_OSX_SYSROOT "${RAWFX_MACOS_SDK}")

# Only the SDK's libc++ headers, never another libc++ the machine may have.
# These headers leave their configuration to the compiler's command line; the
# values are those of the system's libc++ (ABI version 1, namespace __1).
set(CMAKE_CXX_FLAGS_INIT "-stdlib=libc++ -nostdinc++ -D_LIBCPP_ABI_VERSION=1 -D_LIBCPP_ABI_NAMESPACE=__1")
set(CMAKE_CXX_STANDARD_INCLUDE_DIRECTORIES "${RAWFX_MACOS_SDK}/usr/include/c++/v1")

# The compile flags reach the link line too, where -nostdinc++ means nothing.
foreach(kind EXE SHARED MODULE)
  set(CMAKE_${kind}_LINKER_FLAGS_INIT "-fuse-ld=lld -Wno-unused-command-line-argument")
endforeach()

set(CMAKE_FIND_ROOT_PATH "${RAWFX_MACOS_SDK}")
set(CMAKE_FIND_ROOT_PATH_MODE_PROGRAM NEVER)
set(CMAKE_FIND_ROOT_PATH_MODE_LIBRARY ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_INCLUDE ONLY)
set(CMAKE_FIND_ROOT_PATH_MODE_PACKAGE ONLY)
