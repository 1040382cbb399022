#include "rpcheck/RpConfigCheckSm.h"

#include <algorithm>
#include <vector>

#include "kiv/Clock.h"
#include "kiv/Trace.h"

namespace Routing::Pim {

KIV_TRACE_HANDLE( "Pim::RpConfigCheck" )

#define RTRACE( level, expr ) KIV_TRACE( th(), level, "<Vrf:" << vrfName() << ">" << expr )

RpConfigCheckSm * rpConfigCheckSmFactory(
   const Kiv::Ptr< const StaticRpConfig > & config,
   const Kiv::Ptr< const Acl::StandardAclConfig > & aclConfig,
   const Kiv::Ptr< RpConfigCheckResult > & result ) {
   return new RpConfigCheckSm( config, aclConfig, result );
}

RpConfigCheckSm::RpConfigCheckSm( const Kiv::Ptr< const StaticRpConfig > & config,
                                  const Kiv::Ptr< const Acl::StandardAclConfig > & aclConfig,
                                  const Kiv::Ptr< RpConfigCheckResult > & result )
      : config_( Kiv::ValidPtr< const StaticRpConfig >( config ) ),
        aclConfig_( aclConfig ),
        result_( Kiv::ValidPtr< RpConfigCheckResult >( result ) ) {
   handleInitialized();
}

RpConfigCheckSm::~RpConfigCheckSm() = default;

void RpConfigCheckSm::handleInitialized() {
   RTRACE( 8, "handleInitialized()" );
   initializedIs( true );
}

void RpConfigCheckSm::doStart() {
   RTRACE( 8, "doStart()" );
   if( !initialized() ) return;
   // Sorted, so that equal configurations give equal traces.
   std::vector< StaticRpRule > rules;
   rules.reserve( config_->ruleSize() );
   config_->ruleForEach(
      [ & ]( const StaticRpRule & r, const StaticRpRuleOptions & ) { rules.push_back( r ); } );
   std::sort( rules.begin(), rules.end() );
   const RpCheckFindings findings = checkStaticRpRules( rules, aclConfig_.ptr() );
   RTRACE( 5, "checked " << rules.size() << " rules: " << findings.conflicts.size()
                         << " conflicts, " << findings.overlaps.size() << " overlaps, "
                         << findings.missingAcls.size() << " missing access lists" );
   for( const Kiv::String & name : findings.missingAcls ) {
      RTRACE( 3, "access list " << name << " is not configured: its rules serve no group" );
   }
   updateResult( findings, std::uint32_t( rules.size() ) );
}

void RpConfigCheckSm::updateResult( const RpCheckFindings & findings, std::uint32_t ruleCount ) {
   // Only what changed is written, so readers of the result see real changes.
   RpConfigCheckResult & r = *result_;
   for( auto it = r.conflictIter(); it; ++it ) {
      if( !findings.conflicts.count( it.key() ) ) r.conflictDel( it.key() );
   }
   for( const auto & [ prefix, rps ] : findings.conflicts ) r.conflictIs( prefix, rps );
   for( auto it = r.overlapIter(); it; ++it ) {
      if( !findings.overlaps.count( it.key() ) ) r.overlapDel( it.key() );
   }
   for( const RpOverlap & o : findings.overlaps ) r.overlapIs( o );
   for( auto it = r.missingAclIter(); it; ++it ) {
      if( !findings.missingAcls.count( it.key() ) ) r.missingAclDel( it.key() );
   }
   for( const Kiv::String & name : findings.missingAcls ) r.missingAclIs( name );
   r.ruleCountIs( ruleCount );
   r.lastCheckTimeIs( Kiv::System::currentTime() );
   r.checkCountInc();
}

} // namespace Routing::Pim
