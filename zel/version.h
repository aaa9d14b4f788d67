#pragma once

// The version of the library. Until 1.0 each minor version may break the one before it.

#define ZEL_VERSION_MAJOR 0
#define ZEL_VERSION_MINOR 1
#define ZEL_VERSION_PATCH 0
#define ZEL_VERSION_TWEAK 0

#define ZEL_VERSION_STRING "0.1.0.0"

/// One number to compare: `#if ZEL_VERSION >= ZEL_MAKE_VERSION(0, 2, 0)`. The tweak is not in it.
#define ZEL_MAKE_VERSION(major, minor, patch) ((major)*1000000 + (minor)*1000 + (patch))
#define ZEL_VERSION ZEL_MAKE_VERSION(ZEL_VERSION_MAJOR, ZEL_VERSION_MINOR, ZEL_VERSION_PATCH)
