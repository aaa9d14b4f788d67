#pragma once

// The whole of the tile tree: sparse adaptive volumes, built, stored and read.
#include "zel_platform/orvane_geometry_volume/array_pool.h"
#include "zel_platform/orvane_geometry_volume/channel.h"
#include "zel_platform/orvane_geometry_volume/channel_pool.h"
#include "zel_platform/orvane_geometry_volume/container.h"
#include "zel_platform/orvane_geometry_volume/halo.h"
#include "zel_platform/orvane_geometry_volume/object.h"
#include "zel_platform/orvane_geometry_volume/volume_builder.h"
#include "zel_platform/orvane_geometry_volume/voxel_topology.h"
