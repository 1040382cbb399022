#include "services/ip/VrfStatus.h"

namespace Ip {

AllVrfStatusLocal::AllVrfStatusLocal( const Kiv::Name & name ) : Kiv::Entity( name ) {}

KIV_REGISTER_ENTITY_TYPE( AllVrfStatusLocal, "Ip::AllVrfStatusLocal" );

} // namespace Ip

// Out of line: the vtable, and with it this file's type registrations, come
// with any use of the types.
namespace Ip {
const char * AllVrfStatusLocal::typeName() const { return "Ip::AllVrfStatusLocal"; }
} // namespace Ip
