#pragma once

// Marks what libzel offers to other libraries and programs: everything else stays hidden.
#define ZEL_API __attribute__((visibility("default")))

/// Marks what a class that is offered keeps to the library.
#define ZEL_INTERNAL __attribute__((visibility("hidden")))
