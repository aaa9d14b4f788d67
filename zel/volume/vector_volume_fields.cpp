#include "zel/volume/volume_fields_impl.h"

template class zel::detail::VolumeReader<Orvane::Math::float3>;

ZEL_DETAIL_VECTOR_VOLUME_NODES(template);
