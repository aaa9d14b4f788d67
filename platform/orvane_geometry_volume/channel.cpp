#include "zel_platform/orvane_geometry_volume/channel_update_impl.h"

namespace ORV::TileTree3D {

ZEL_DETAIL_CHANNELS(, , BinaryTraits, 4, 5);
ZEL_DETAIL_CHANNELS(, , QuinaryTraits, 5, 6);

}  // namespace ORV::TileTree3D
