#include "model/PimStatus.h"

#include "kiv/Random.h"

namespace Routing::Pim {

Intf::Intf( const Lumo::IntfId & id, const Lumo::IpGenAddrWithMask & addressWithMask ) : id_( id ) {
   addressWithMask_ = addressWithMask;
   generationId_ = ( Kiv::rand() << 1 ) ^ Kiv::rand();
}

Kiv::Ptr< RouterIdInfo > routerIdInfoFactory( const L3::VrfName & vrfName ) {
   return Kiv::make< RouterIdInfo >( vrfName );
}

} // namespace Routing::Pim
