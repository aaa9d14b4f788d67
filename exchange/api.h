#pragma once

// Marks symbols that libzel_exchange exports; all others are hidden.
#define ZEL_EXCHANGE_API __attribute__((visibility("default")))
