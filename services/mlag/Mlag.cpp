#include "services/mlag/Mlag.h"

namespace Mlag {

ProtoStatus::ProtoStatus( const Kiv::Name & name ) : Kiv::Entity( name ) {}

KIV_REGISTER_ENTITY_TYPE( ProtoStatus, "Mlag::ProtoStatus" );

} // namespace Mlag

// Out of line: the vtable, and with it this file's type registrations, come
// with any use of the types.
namespace Mlag {
const char * ProtoStatus::typeName() const { return "Mlag::ProtoStatus"; }
} // namespace Mlag
