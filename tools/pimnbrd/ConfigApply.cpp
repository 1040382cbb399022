#include "ConfigApply.h"

namespace Pimnbrd {

using namespace Routing::Pim;

namespace {

void writeIntf( IntfConfig & c, const IntfSettings & s ) {
   c.modeIs( Mode( s.mode ) );
   c.borderRouterIs( s.borderRouter );
   c.helloIntervalIs( s.helloInterval );
   c.helloCountIs( s.helloMultiplier );
   c.helloPriorityIs( s.drPriority );
   c.joinPruneIntervalIs( s.joinPruneInterval );
   c.joinPruneCountIs( s.joinPruneMultiplier );
   c.bfdIs( IntfBfd( s.bfd ) );
   c.fastFailoverIs( s.fastFailover );
   c.propagationDelayIs( s.propagationDelay );
   c.overrideIntervalIs( s.overrideInterval );
   c.neighborLimitIs( s.neighborLimit );
}

void writeVrf( const std::string & name, const VrfSettings & s, const ConfigTargets & t ) {
   const L3::VrfName vrf( name );
   auto c = t.configColl->vrfConfig( vrf );
   if( !c ) c = t.configColl->vrfConfigIs( vrf );
   c->pimConfiguredIs( s.pimConfigured );
   c->bfdIntfDefaultIs( s.bfdDefault );
   c->neighborChangeLogIs( s.neighborChangeLog );
   c->neighborLimitIs( s.neighborLimit );
   t.vrfEnabledStatus->vrfIs( vrf, s.multicastRouting );
   auto local = t.allVrfStatusLocal->vrf( vrf );
   if( !local ) local = t.allVrfStatusLocal->vrfIs( vrf );
   local->namespaceNameIs( Lumo::NamespaceName( s.netns ) );
}

} // namespace

void applyConfig( const DaemonConfig & to, const ConfigDiff & d, const ConfigTargets & t ) {
   if( d.globalsChanged ) {
      t.configColl->globalConfig()->drDelayIs( to.drDelay );
      t.mlagProtoStatus->portsErrdisabledIs( to.mlagPortsErrdisabled );
   }
   // Interfaces first out and last in, so that none is ever seen in a VRF
   // that is not there.
   for( const auto & k : d.intfsRemoved ) {
      // A name that moved to another VRF stays: the add below rewrites it.
      bool moved = false;
      for( const auto & a : d.intfsAdded ) moved = moved || a.intf == k.intf;
      if( !moved ) t.configColl->intfConfigDel( Lumo::IntfId( k.intf ) );
   }
   for( const auto & v : d.vrfsRemoved ) {
      const L3::VrfName vrf( v );
      t.configColl->vrfConfigDel( vrf );
      t.vrfEnabledStatus->vrfDel( vrf );
      t.allVrfStatusLocal->vrfDel( vrf );
   }
   for( const auto & v : d.vrfsAdded ) writeVrf( v, to.vrfs.at( v ), t );
   for( const auto & v : d.vrfsChanged ) writeVrf( v, to.vrfs.at( v ), t );
   auto write = [ & ]( const ConfigDiff::IntfKey & k ) {
      const Lumo::IntfId id( k.intf );
      auto c = t.configColl->intfConfig( id );
      if( !c ) c = t.configColl->intfConfigIs( id );
      writeIntf( *c, to.vrfs.at( k.vrf ).interfaces.at( k.intf ) );
   };
   for( const auto & k : d.intfsAdded ) write( k );
   for( const auto & k : d.intfsChanged ) write( k );
}

} // namespace Pimnbrd
