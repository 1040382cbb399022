#pragma once
// RpConfigCheckSm: the on-demand check of one VRF's static RP rules. Its
// caller creates it with rpConfigCheckSmFactory (exported by the plug-in)
// and runs the check with doStart(); the findings replace what the result
// entity held. It does not follow later configuration changes: a caller
// that wants fresh findings starts it again.
#include "kiv/EntityMacros.h"
#include "kiv/Ptr.h"
#include "lumo/VrfName.h"
#include "rpcheck/RpConfigCheckResult.h"
#include "rpcheck/RpPrefixTrie.h"
#include "rpcheck/StaticRpConfig.h"
#include "services/acl/StandardAcl.h"

namespace Routing::Pim {

class RpConfigCheckSm;

extern "C" {
// Returns a new machine with no counted reference yet: hand it straight to a
// Kiv::Ptr< RpConfigCheckSm >, which owns it from then on. config and
// result are required ("null ValidPtr"); aclConfig may be null, and every
// rule that names a list then counts as naming a missing one. Visible by
// default so that a plug-in built with hidden visibility still exports it.
__attribute__( ( visibility( "default" ) ) ) RpConfigCheckSm * rpConfigCheckSmFactory(
   const Kiv::Ptr< const StaticRpConfig > & config,
   const Kiv::Ptr< const Acl::StandardAclConfig > & aclConfig,
   const Kiv::Ptr< RpConfigCheckResult > & result );
}

#define PIM_RP_CONFIG_CHECK_SM_ATTRS( X ) \
   X( SCALAR, initialized, Initialized, bool, false )

class RpConfigCheckSm : public Kiv::StateMachine {
 public:
   ~RpConfigCheckSm() override;
   KIV_ENTITY( RpConfigCheckSm, "Routing::Pim::RpConfigCheckSm", PIM_RP_CONFIG_CHECK_SM_ATTRS )

   const L3::VrfName & vrfName() const { return config_->vrfName(); }
   const Kiv::Ptr< const StaticRpConfig > & config() const { return config_; }
   const Kiv::Ptr< const Acl::StandardAclConfig > & aclConfig() const { return aclConfig_; }
   const Kiv::Ptr< RpConfigCheckResult > & result() const { return result_; }

   // Marks the machine ready; the check itself waits for doStart().
   void handleInitialized();
   // Checks the rules as they are now and writes the findings.
   void doStart();

 private:
   friend RpConfigCheckSm * rpConfigCheckSmFactory(
      const Kiv::Ptr< const StaticRpConfig > &, const Kiv::Ptr< const Acl::StandardAclConfig > &,
      const Kiv::Ptr< RpConfigCheckResult > & );
   RpConfigCheckSm( const Kiv::Ptr< const StaticRpConfig > & config,
                    const Kiv::Ptr< const Acl::StandardAclConfig > & aclConfig,
                    const Kiv::Ptr< RpConfigCheckResult > & result );
   void updateResult( const RpCheckFindings & findings, std::uint32_t ruleCount );

   Kiv::Ptr< const StaticRpConfig > config_;
   Kiv::Ptr< const Acl::StandardAclConfig > aclConfig_;
   Kiv::Ptr< RpConfigCheckResult > result_;
};

} // namespace Routing::Pim
