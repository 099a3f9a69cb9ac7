# The two build-time settings that every identifier of the product derives from.
set(PALVIN_VENDOR_PREFIX "org.palvin" CACHE STRING
    "Reverse-DNS vendor prefix (two or more dot-separated labels)")
set(PALVIN_TEAM_ID "PALVIN0001" CACHE STRING
    "Developer team identifier: 10 upper-case letters or digits")

# Labels are kept to what a bundle identifier accepts, so a prefix that works
# here also works in Info.plist and the entitlements.
if(NOT PALVIN_VENDOR_PREFIX MATCHES "^[A-Za-z0-9-]+(\\.[A-Za-z0-9-]+)+$")
  message(FATAL_ERROR
    "PALVIN_VENDOR_PREFIX='${PALVIN_VENDOR_PREFIX}' is not a reverse-DNS prefix: "
    "it needs two or more dot-separated labels of letters, digits or '-' "
    "(for example -DPALVIN_VENDOR_PREFIX=com.example).")
endif()
if(NOT PALVIN_TEAM_ID MATCHES "^[A-Z0-9][A-Z0-9][A-Z0-9][A-Z0-9][A-Z0-9][A-Z0-9][A-Z0-9][A-Z0-9][A-Z0-9][A-Z0-9]$")
  message(FATAL_ERROR
    "PALVIN_TEAM_ID='${PALVIN_TEAM_ID}' is not a team identifier: "
    "it must be exactly 10 upper-case letters or digits (for example -DPALVIN_TEAM_ID=ABCDE12345).")
endif()

set(PALVIN_APP_GROUP "group.${PALVIN_TEAM_ID}.${PALVIN_VENDOR_PREFIX}.palvin")
set(PALVIN_EXTENSION_BUNDLE_ID "${PALVIN_VENDOR_PREFIX}.palvin.PalvinFinder")
set(PALVIN_APPLICATION_ID "${PALVIN_TEAM_ID}.${PALVIN_EXTENSION_BUNDLE_ID}")
set(PALVIN_GENERATED_DIR "${CMAKE_BINARY_DIR}/generated")
configure_file(${CMAKE_SOURCE_DIR}/src/shared/identifiers.h.in
               ${PALVIN_GENERATED_DIR}/palvin/identifiers.h @ONLY)

# The extension's bundle declarations and entitlements, generated on every
# platform so the Linux tests can check them against the header above.
configure_file(${CMAKE_SOURCE_DIR}/src/finder/Info.plist.in
               ${PALVIN_GENERATED_DIR}/PalvinFinder-Info.plist @ONLY)
configure_file(${CMAKE_SOURCE_DIR}/src/finder/PalvinFinder.entitlements.in
               ${PALVIN_GENERATED_DIR}/PalvinFinder.entitlements @ONLY)
