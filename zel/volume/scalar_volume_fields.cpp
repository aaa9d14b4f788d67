#include "zel/volume/volume_fields_impl.h"

template class zel::detail::VolumeReader<float>;

ZEL_DETAIL_SCALAR_VOLUME_NODES(template);
