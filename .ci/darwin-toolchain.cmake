# Builds the Apple bundles on Linux for one macOS architecture
# (-DPALVIN_CROSS_ARCH=arm64 or x86_64): clang compiles against the stand-in
# SDK in apple-sdk/ (headers and .tbd stubs written from Apple's
# documentation) and ld64.lld links Mach-O executables against its stubs.
# scripts/check-apple-build.py drives it; nothing here runs on a Mac.
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

# libc++ as Apple configures it: the SDK's __config_site, with the
# availability annotations on, in front of the compiler's libc++ headers.
set(CMAKE_CXX_FLAGS_INIT "-stdlib=libc++ -isystem ${CMAKE_OSX_SYSROOT}/usr/include/c++/v1")
set(CMAKE_OBJCXX_FLAGS_INIT "${CMAKE_CXX_FLAGS_INIT}")

# ld64.lld, and the stand-in for compiler-rt's @available support, compiled
# once per build tree.
set(PALVIN_DARWIN_RT ${CMAKE_BINARY_DIR}/darwin-rt/libclang_rt.osx.a)
if(NOT CMAKE_IN_TRY_COMPILE AND NOT EXISTS ${PALVIN_DARWIN_RT})
  file(MAKE_DIRECTORY ${CMAKE_BINARY_DIR}/darwin-rt)
  execute_process(
    COMMAND ${CMAKE_C_COMPILER} --target=${PALVIN_CROSS_ARCH}-apple-macos -isysroot ${CMAKE_OSX_SYSROOT}
            -mmacosx-version-min=${CMAKE_OSX_DEPLOYMENT_TARGET} -O2 -Wall -Werror -c ${CMAKE_CURRENT_LIST_DIR}/darwin-rt/os_version.c
            -o ${CMAKE_BINARY_DIR}/darwin-rt/os_version.o
    COMMAND_ERROR_IS_FATAL ANY)
  execute_process(COMMAND ${CMAKE_AR} rcs ${PALVIN_DARWIN_RT} ${CMAKE_BINARY_DIR}/darwin-rt/os_version.o
                  COMMAND_ERROR_IS_FATAL ANY)
endif()
set(CMAKE_EXE_LINKER_FLAGS_INIT "-fuse-ld=lld ${PALVIN_DARWIN_RT}")
