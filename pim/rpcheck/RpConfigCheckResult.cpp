#include "rpcheck/RpConfigCheckResult.h"

#include <algorithm>

#include <fmt/format.h>

namespace Routing::Pim {

std::string rpSetText( const RpSet & rps ) {
   std::string s;
   for( const Lumo::IpGenAddr & a : rps ) {
      if( !s.empty() ) s += ", ";
      s += valueToStrep( a );
   }
   return s;
}

std::size_t RpOverlap::hash() const noexcept {
   std::size_t h = rule.hash();
   h = h * 31 + prefix.hash();
   h = h * 31 + widerRule.hash();
   return h * 31 + widerPrefix.hash();
}

std::ostream & operator<<( std::ostream & os, const RpOverlap & o ) {
   return os << o.prefix << " (" << o.rule << ") inside " << o.widerPrefix << " ("
             << o.widerRule << ")";
}

RpConfigCheckResult::RpConfigCheckResult( const L3::VrfName & vrfName )
      : Kiv::Entity( Kiv::Name( vrfName.stringValue() ) ), vrfName_( vrfName ) {}

const char * RpConfigCheckResult::typeName() const { return "Routing::Pim::RpConfigCheckResult"; }

const char * RpConfigCheckResultColl::typeName() const {
   return "Routing::Pim::RpConfigCheckResultColl";
}

KIV_REGISTER_ENTITY_TYPE( RpConfigCheckResultColl, "Routing::Pim::RpConfigCheckResultColl" );

std::string rpConfigCheckText( const RpConfigCheckResult & result ) {
   std::vector< std::string > conflicts;
   result.conflictForEach( [ & ]( const Lumo::IpGenPrefix & p, const RpSet & rps ) {
      conflicts.push_back( fmt::format( "  {} -> {}\n", p, rpSetText( rps ) ) );
   } );
   std::vector< RpOverlap > overlaps;
   result.overlapForEach( [ & ]( const RpOverlap & o, bool ) { overlaps.push_back( o ); } );
   std::vector< std::string > missing;
   result.missingAclForEach(
      [ & ]( const Kiv::String & name, bool ) { missing.push_back( name.str() ); } );
   std::sort( conflicts.begin(), conflicts.end() );
   std::sort( overlaps.begin(), overlaps.end() );
   std::sort( missing.begin(), missing.end() );

   std::string s = fmt::format( "VRF {}: {} rules, checked {} times\n",
                                result.vrfName().stringValue(), result.ruleCount(),
                                result.checkCount() );
   s += fmt::format( "Groups mapped to more than one RP: {}\n", conflicts.size() );
   for( const std::string & line : conflicts ) s += line;
   s += fmt::format( "Prefixes inside a wider prefix of another rule: {}\n", overlaps.size() );
   for( const RpOverlap & o : overlaps ) {
      s += fmt::format( "  {} ({}) inside {} ({})\n", o.prefix, o.rule, o.widerPrefix,
                        o.widerRule );
   }
   for( const std::string & name : missing ) {
      s += fmt::format( "Access list {} is not configured\n", name );
   }
   return s;
}

} // namespace Routing::Pim
