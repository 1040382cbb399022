#include "services/mlag/Mlag.h"

namespace Mlag {

ProtoStatus::ProtoStatus( const Kiv::Name & name ) : Kiv::Entity( name ) {}

KIV_REGISTER_ENTITY_TYPE( ProtoStatus, "Mlag::ProtoStatus" );

} // namespace Mlag
