# Apple builds: the deployment target's floor, signing and a simdjson that
# is linked into the binaries rather than loaded from the build machine.

if(CMAKE_OSX_DEPLOYMENT_TARGET VERSION_LESS 12.0)
  message(FATAL_ERROR
    "CMAKE_OSX_DEPLOYMENT_TARGET=${CMAKE_OSX_DEPLOYMENT_TARGET}: the extension needs macOS 12 or later "
    "(palette colours for symbol images). Pass -DCMAKE_OSX_DEPLOYMENT_TARGET=12.0 or later.")
endif()

# A linker warning is an error where compiler warnings are: ld64 warns, for
# one, about an object built for a newer macOS than the deployment target.
if(PALVIN_WERROR)
  add_link_options(LINKER:-fatal_warnings)
endif()

# --- Signing -------------------------------------------------------------------
option(PALVIN_ADHOC_SIGNING
  "Sign ad hoc, without a team or provisioning profile: runs on this Mac only, for testing" OFF)
set(PALVIN_CODE_SIGN_IDENTITY "Apple Development" CACHE STRING
  "Identity that Ninja/Make builds sign with (codesign -s); ignored with ad-hoc signing and by Xcode")
set(PALVIN_EXTENSION_PROFILE "" CACHE FILEPATH
  "Ninja/Make: provisioning profile embedded in the extension (Xcode manages its own)")
set(PALVIN_HOST_PROFILE "" CACHE FILEPATH
  "Ninja/Make: provisioning profile embedded in the host app (Xcode manages its own)")

if(PALVIN_TEAM_ID STREQUAL "PALVIN0001" AND NOT PALVIN_ADHOC_SIGNING)
  message(FATAL_ERROR
    "PALVIN_TEAM_ID is the placeholder PALVIN0001, and the extension and the host app must be signed "
    "by your team to share their app group container. Pass -DPALVIN_TEAM_ID=<your 10-character team ID> "
    "(Xcode > Settings > Accounts, or the Membership page at developer.apple.com). To try the build on "
    "this Mac without a team, pass -DPALVIN_ADHOC_SIGNING=ON instead: it signs ad hoc.")
endif()

if(PALVIN_ADHOC_SIGNING)
  set(PALVIN_SIGN_IDENTITY "-")
else()
  set(PALVIN_SIGN_IDENTITY "${PALVIN_CODE_SIGN_IDENTITY}")
endif()
if(PALVIN_ADHOC_SIGNING AND (PALVIN_EXTENSION_PROFILE OR PALVIN_HOST_PROFILE))
  message(FATAL_ERROR "Provisioning profiles belong to a team's signature, not to ad-hoc signing: "
                      "leave PALVIN_EXTENSION_PROFILE and PALVIN_HOST_PROFILE empty with PALVIN_ADHOC_SIGNING.")
endif()
# With profiles, both bundles carry the entitlements that only a profile can
# back; without, neither does (see the README's signing section).
set(PALVIN_PROVISIONED OFF)
foreach(profile IN ITEMS PALVIN_EXTENSION_PROFILE PALVIN_HOST_PROFILE)
  if(NOT ${profile} STREQUAL "")
    if(NOT EXISTS "${${profile}}")
      message(FATAL_ERROR "${profile}: no provisioning profile at ${${profile}}")
    endif()
    set(PALVIN_PROVISIONED ON)
  endif()
endforeach()
if(PALVIN_PROVISIONED AND (PALVIN_EXTENSION_PROFILE STREQUAL "" OR PALVIN_HOST_PROFILE STREQUAL ""))
  message(FATAL_ERROR "Pass both PALVIN_EXTENSION_PROFILE and PALVIN_HOST_PROFILE, or neither: "
                      "the two bundles' entitlements must be backed alike.")
endif()

find_program(PALVIN_CODESIGN codesign)
if(NOT PALVIN_CODESIGN)
  set(PALVIN_CODESIGN codesign)
endif()

# --- simdjson, statically -------------------------------------------------------
# Homebrew's formula installs simdjson's CMake package for the shared library
# and puts libsimdjson.a beside it by hand, outside the package; linking the
# package's target would load the dylib by its Homebrew path. The archive is
# taken from the same prefix as the package, so headers and code agree.
find_package(simdjson REQUIRED)
get_target_property(PALVIN_SIMDJSON_INCLUDE simdjson::simdjson INTERFACE_INCLUDE_DIRECTORIES)
find_library(PALVIN_SIMDJSON_ARCHIVE NAMES libsimdjson.a
  HINTS "${simdjson_DIR}/../.." "${PALVIN_SIMDJSON_INCLUDE}/../lib"
  DOC "simdjson's static library (Homebrew: $(brew --prefix simdjson)/lib/libsimdjson.a)")
if(NOT PALVIN_SIMDJSON_ARCHIVE)
  message(FATAL_ERROR
    "No libsimdjson.a beside simdjson's CMake package in ${simdjson_DIR}. The extension links simdjson "
    "statically, since a signed extension must not load libraries from the build machine. Homebrew's "
    "simdjson ships the archive (brew install simdjson); elsewhere build simdjson with "
    "-DBUILD_SHARED_LIBS=OFF, or pass -DPALVIN_SIMDJSON_ARCHIVE=/path/to/libsimdjson.a.")
endif()
add_library(palvin_simdjson STATIC IMPORTED)
set_target_properties(palvin_simdjson PROPERTIES
  IMPORTED_LOCATION "${PALVIN_SIMDJSON_ARCHIVE}"
  INTERFACE_INCLUDE_DIRECTORIES "${PALVIN_SIMDJSON_INCLUDE}"
  INTERFACE_COMPILE_DEFINITIONS "$<TARGET_PROPERTY:simdjson::simdjson,INTERFACE_COMPILE_DEFINITIONS>"
  INTERFACE_LINK_LIBRARIES Threads::Threads)
