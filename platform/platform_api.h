#pragma once

// Marks what libzel_platform offers to other libraries and programs: everything else stays hidden.
#define ZEL_PLATFORM_API __attribute__((visibility("default")))

/// Marks an object that is made ahead of the statics of all that use it, in a static library, too.
#define ZEL_PLATFORM_FIRST __attribute__((init_priority(101)))

/// Marks what a class that is offered keeps to the library.
#define ZEL_PLATFORM_INTERNAL __attribute__((visibility("hidden")))
