#pragma once

// Marks symbols that libzel_scene exports; all others are hidden.
#define ZEL_SCENE_API __attribute__((visibility("default")))
