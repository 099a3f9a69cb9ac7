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
# An app extension's identifier must extend its containing app's.
set(PALVIN_HOST_BUNDLE_ID "${PALVIN_VENDOR_PREFIX}.palvin")
set(PALVIN_EXTENSION_BUNDLE_ID "${PALVIN_HOST_BUNDLE_ID}.PalvinFinder")
set(PALVIN_APPLICATION_ID "${PALVIN_TEAM_ID}.${PALVIN_EXTENSION_BUNDLE_ID}")
set(PALVIN_HOST_APPLICATION_ID "${PALVIN_TEAM_ID}.${PALVIN_HOST_BUNDLE_ID}")
set(PALVIN_GENERATED_DIR "${CMAKE_BINARY_DIR}/generated")
configure_file(${CMAKE_SOURCE_DIR}/src/shared/identifiers.h.in
               ${PALVIN_GENERATED_DIR}/palvin/identifiers.h @ONLY)

# The bundles' declarations and entitlements, generated on every platform so
# that the Linux tests check them against the header above. Each bundle gets
# two entitlement files: the whole set, and the set without the two keys that
# only a provisioning profile can back (Xcode adds those from the profile it
# manages; Ninja/Make builds without profiles sign without them).
function(palvin_generate_bundle_files name template_dir application_id)
  configure_file(${template_dir}/Info.plist.in ${PALVIN_GENERATED_DIR}/${name}-Info.plist @ONLY)
  set(PALVIN_BUNDLE_APPLICATION_ID "${application_id}")
  set(PALVIN_PROFILE_ENTITLEMENTS
      "\t<key>com.apple.application-identifier</key>\n\t<string>${application_id}</string>\n"
      "\t<key>com.apple.developer.team-identifier</key>\n\t<string>${PALVIN_TEAM_ID}</string>\n")
  string(JOIN "" PALVIN_PROFILE_ENTITLEMENTS ${PALVIN_PROFILE_ENTITLEMENTS})
  configure_file(${template_dir}/${name}.entitlements.in ${PALVIN_GENERATED_DIR}/${name}.entitlements @ONLY)
  set(PALVIN_PROFILE_ENTITLEMENTS "")
  configure_file(${template_dir}/${name}.entitlements.in ${PALVIN_GENERATED_DIR}/${name}-noprofile.entitlements
                 @ONLY)
endfunction()
palvin_generate_bundle_files(PalvinFinder ${CMAKE_SOURCE_DIR}/src/finder "${PALVIN_APPLICATION_ID}")
palvin_generate_bundle_files(PalvinHost ${CMAKE_SOURCE_DIR}/src/host/apple "${PALVIN_HOST_APPLICATION_ID}")
