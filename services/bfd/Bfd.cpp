#include "services/bfd/Bfd.h"

namespace Bfd {

KIV_REGISTER_ENTITY_TYPE( AppConfig, "Bfd::AppConfig" );

AppConfig::AppConfig( const Kiv::Name & appName ) : Kiv::Entity( appName ), appName_( appName.str() ) {}

const char * operStateName( OperState s ) {
   switch( s ) {
    case operAdminDown: return "AdminDown";
    case operDown: return "Down";
    case operInit: return "Init";
    case operUp: return "Up";
   }
   return "Unknown";
}

std::ostream & operator<<( std::ostream & os, OperState s ) {
   return os << operStateName( s );
}

std::ostream & operator<<( std::ostream & os, const Peer & p ) {
   return os << "Peer(" << p.ip << ", " << p.vrf << ")";
}

} // namespace Bfd
