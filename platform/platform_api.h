#pragma once

// Marks symbols that libzel_platform exports; all others are hidden.
#define ZEL_PLATFORM_API __attribute__((visibility("default")))

/// Marks a static object that is initialised before the static objects of all its users, even if
/// the library is linked statically.
#define ZEL_PLATFORM_FIRST __attribute__((init_priority(101)))

/// Marks members of an exported class that are not exported.
#define ZEL_PLATFORM_INTERNAL __attribute__((visibility("hidden")))
