#pragma once

// Marks what libzel_platform offers to other libraries and programs: everything else stays hidden.
#define ZEL_PLATFORM_API __attribute__((visibility("default")))
