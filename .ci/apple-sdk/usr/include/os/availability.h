// Availability attributes in the spelling of Apple's headers:
//   API_AVAILABLE(macos(12.0))                   introduced in macOS 12
//   API_DEPRECATED("why", macos(10.6, 14.0))     introduced, then deprecated
//   API_UNAVAILABLE(macos_app_extension)         not for app extensions
// Only the platforms the declarations here need are spelled out. With a
// deployment target below the version, a call outside `@available` is an
// error under -Werror=unguarded-availability-new.
#pragma once

#define API_AVAILABLE(platform) __PALVIN_API_AVAILABLE_##platform
#define __PALVIN_API_AVAILABLE_macos(version) __attribute__((availability(macos, introduced = version)))

#define API_UNAVAILABLE(platform) __PALVIN_API_UNAVAILABLE_##platform
#define __PALVIN_API_UNAVAILABLE_macos_app_extension __attribute__((availability(macos_app_extension, unavailable)))

#define API_DEPRECATED(message, platform) __PALVIN_API_DEPRECATED(message, __PALVIN_API_DEPRECATED_##platform)
#define __PALVIN_API_DEPRECATED_macos(introduced_, deprecated_) macos, introduced = introduced_, deprecated = deprecated_
#define __PALVIN_API_DEPRECATED(message, ...) __PALVIN_API_DEPRECATED_ATTRIBUTE(message, __VA_ARGS__)
#define __PALVIN_API_DEPRECATED_ATTRIBUTE(message_, ...) __attribute__((availability(__VA_ARGS__, message = message_)))
