# Configures the Apple build on Linux for one macOS architecture
# (-DPALVIN_CROSS_ARCH=arm64 or x86_64), with the declarations in apple-sdk/
# as the SDK, so that tests/apple-build-test.sh can compile the Apple sources
# with the build's own commands and inspect the rest. Nothing is linked:
# there are no Apple libraries here to link against.
set(CMAKE_SYSTEM_NAME Darwin)
if(NOT PALVIN_CROSS_ARCH)
  set(PALVIN_CROSS_ARCH arm64)
endif()
list(APPEND CMAKE_TRY_COMPILE_PLATFORM_VARIABLES PALVIN_CROSS_ARCH)
set(CMAKE_SYSTEM_PROCESSOR ${PALVIN_CROSS_ARCH})
set(CMAKE_OSX_ARCHITECTURES ${PALVIN_CROSS_ARCH})
set(CMAKE_OSX_SYSROOT ${CMAKE_CURRENT_LIST_DIR}/apple-sdk)

foreach(lang C CXX OBJCXX)
  set(CMAKE_${lang}_COMPILER_TARGET ${PALVIN_CROSS_ARCH}-apple-macos)
endforeach()
# clang and the LLVM tools, which read and write Mach-O.
set(llvm_bin /usr/lib/llvm-14/bin)
find_program(CMAKE_C_COMPILER clang HINTS ${llvm_bin} REQUIRED)
find_program(CMAKE_CXX_COMPILER clang++ HINTS ${llvm_bin} REQUIRED)
set(CMAKE_OBJCXX_COMPILER ${CMAKE_CXX_COMPILER})
find_program(CMAKE_AR llvm-ar HINTS ${llvm_bin} REQUIRED)
find_program(CMAKE_RANLIB llvm-ranlib HINTS ${llvm_bin} REQUIRED)
find_program(CMAKE_INSTALL_NAME_TOOL llvm-install-name-tool HINTS ${llvm_bin} REQUIRED)
set(CMAKE_TRY_COMPILE_TARGET_TYPE STATIC_LIBRARY)

# Darwin's C library: glibc's headers for the same processor stand in,
# searched after everything else, with the adaptations in apple-sdk/usr/include
# in front of them. The C++ library is libc++, as on a Mac.
if(PALVIN_CROSS_ARCH STREQUAL "arm64")
  set(libc /usr/aarch64-linux-gnu/include)
else()
  set(libc /usr/x86_64-linux-gnu/include)
endif()
set(CMAKE_CXX_FLAGS_INIT "-stdlib=libc++ -idirafter ${libc}")
set(CMAKE_OBJCXX_FLAGS_INIT "-stdlib=libc++ -idirafter ${libc}")
set(CMAKE_C_FLAGS_INIT "-idirafter ${libc}")
