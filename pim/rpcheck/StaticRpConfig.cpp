#include "rpcheck/StaticRpConfig.h"

#include "kiv/RangeException.h"

namespace Routing::Pim {

StaticRpRule StaticRpRule::forPrefix( const Lumo::IpGenAddr & rpAddr,
                                      const Lumo::IpGenPrefix & groupPrefix ) {
   if( rpAddr.isEmpty() ) throw Kiv::RangeException( "StaticRpRule::rpAddr empty not allowed" );
   if( groupPrefix.isEmpty() || groupPrefix.af() != rpAddr.af() ) {
      throw Kiv::RangeException( "StaticRpRule::groupPrefix family != rpAddr family not allowed" );
   }
   StaticRpRule r;
   r.rpAddr_ = rpAddr;
   r.groupPrefix_ = groupPrefix;
   return r;
}

StaticRpRule StaticRpRule::forAcl( const Lumo::IpGenAddr & rpAddr, const Kiv::String & aclName ) {
   if( rpAddr.isEmpty() ) throw Kiv::RangeException( "StaticRpRule::rpAddr empty not allowed" );
   if( aclName.empty() ) throw Kiv::RangeException( "StaticRpRule::aclName empty not allowed" );
   StaticRpRule r;
   r.rpAddr_ = rpAddr;
   r.aclName_ = aclName;
   return r;
}

std::size_t StaticRpRule::hash() const noexcept {
   return ( rpAddr_.hash() * 31 + groupPrefix_.hash() ) * 31 + aclName_.hash();
}

std::string valueToStrep( const StaticRpRule & r ) {
   if( r.usesAcl() ) return valueToStrep( r.rpAddr() ) + " access-list " + r.aclName().str();
   return valueToStrep( r.rpAddr() ) + " group " + valueToStrep( r.groupPrefix() );
}

std::ostream & operator<<( std::ostream & os, const StaticRpRule & r ) {
   return os << valueToStrep( r );
}

std::ostream & operator<<( std::ostream & os, const StaticRpRuleOptions & o ) {
   return os << ( o.override ? "override" : "" );
}

StaticRpConfig::StaticRpConfig( const L3::VrfName & vrfName )
      : Kiv::Entity( Kiv::Name( vrfName.stringValue() ) ), vrfName_( vrfName ) {}

const char * StaticRpConfig::typeName() const { return "Routing::Pim::StaticRpConfig"; }

const char * StaticRpConfigColl::typeName() const { return "Routing::Pim::StaticRpConfigColl"; }

KIV_REGISTER_ENTITY_TYPE( StaticRpConfigColl, "Routing::Pim::StaticRpConfigColl" );

} // namespace Routing::Pim
