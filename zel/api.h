#pragma once

// Marks what libzel offers to other libraries and programs: everything else stays hidden.
#define ZEL_API __attribute__((visibility("default")))
