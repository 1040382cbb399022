#include "services/ip/VrfStatus.h"

namespace Ip {

AllVrfStatusLocal::AllVrfStatusLocal( const Kiv::Name & name ) : Kiv::Entity( name ) {}

KIV_REGISTER_ENTITY_TYPE( AllVrfStatusLocal, "Ip::AllVrfStatusLocal" );

} // namespace Ip
