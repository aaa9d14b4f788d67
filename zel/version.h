#pragma once

// The version of the library, which stands nowhere else. Until 1.0 each minor version may break the
// one before it.

#define ZEL_VERSION_MAJOR 0
#define ZEL_VERSION_MINOR 1
#define ZEL_VERSION_PATCH 0
#define ZEL_VERSION_TWEAK 0

/// The four numbers as text, such as "0.1.0.0".
#define ZEL_VERSION                                                                                \
    ZEL_DETAIL_TEXT(ZEL_VERSION_MAJOR.ZEL_VERSION_MINOR.ZEL_VERSION_PATCH.ZEL_VERSION_TWEAK)
#define ZEL_DETAIL_TEXT(numbers) ZEL_DETAIL_TEXT_OF(numbers)
#define ZEL_DETAIL_TEXT_OF(numbers) #numbers

/// One number to compare: `#if ZEL_VERSION_NUMBER >= ZEL_MAKE_VERSION(0, 2, 0)`. The tweak is not
/// in it.
#define ZEL_MAKE_VERSION(major, minor, patch) ((major)*1000000 + (minor)*1000 + (patch))
#define ZEL_VERSION_NUMBER ZEL_MAKE_VERSION(ZEL_VERSION_MAJOR, ZEL_VERSION_MINOR, ZEL_VERSION_PATCH)
