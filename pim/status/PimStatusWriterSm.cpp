#include "status/PimStatusWriterSm.h"

#include <vector>

#include "kiv/RangeException.h"
#include "kiv/Trace.h"

KIV_TRACE_HANDLE( "Pim::StatusWriter" )

namespace Routing::Pim::Varn {

// ---- rows ------------------------------------------------------------------------------
Intf intfRow( const ::Routing::Pim::Intf & i ) {
   Intf r( i.id() );
   r.enabled = i.enabled();
   r.mode = i.mode();
   r.addressWithMask = AddrWithMask( i.addressWithMask() );
   r.usedAddressWithMask = AddrWithMask( i.usedAddressWithMask() );
   r.helloPeriod = i.helloPeriod();
   r.helloHoldTime = i.helloHoldTime();
   r.helloDelay = i.helloDelay();
   r.drPriority = i.drPriority();
   r.generationId = i.generationId();
   r.joinPrunePeriod = i.joinPrunePeriod();
   r.joinPruneHoldTime = i.joinPruneHoldTime();
   r.bfdEnabled = i.bfdEnabled();
   r.borderRouter = i.borderRouter();
   r.fastFailover = i.fastFailover();
   r.sourceInject = i.sourceInject();
   r.portCapabilityFlags = i.portCapabilityFlags();
   r.portInterfaceId = i.portInterfaceId().value();
   r.usedDr = Addr( i.usedDr() );
   r.usedDrPriority = i.usedDrPriority();
   r.propagationDelay = i.propagationDelay();
   r.overrideInterval = i.overrideInterval();
   r.tBit = i.tBit();
   r.usedPropagationDelay = i.usedPropagationDelay();
   r.usedOverrideInterval = i.usedOverrideInterval();
   r.usedTBit = i.usedTBit();
   r.triggeredHello = i.triggeredHello();
   r.triggeredHelloCount = i.triggeredHelloCount();
   r.lastHelloTime = i.lastHelloTime();
   r.assertTimeout = i.assertTimeout();
   r.assertOverrideInterval = i.assertOverrideInterval();
   r.neighborLimit = i.neighborLimit();
   r.refusedNeighborCount = i.refusedNeighborCount();
   r.refusedSourceAddressCount = i.refusedSourceAddressCount();
   r.ignoredSecondaryCount = i.ignoredSecondaryCount();
   return r;
}

Neighbor neighborRow( const Lumo::IntfId & intf, const ::Routing::Pim::Neighbor & n ) {
   Neighbor r( intf, n.address() );
   r.creationTime = n.creationTime();
   r.lastRefreshTime = n.lastRefreshTime();
   r.holdTime = n.holdTime();
   r.drPriorityOption.valid = n.drPriorityOption().valid;
   r.drPriorityOption.value = n.drPriorityOption().value;
   r.generationIdOption.valid = n.generationIdOption().valid;
   r.generationIdOption.value = n.generationIdOption().value;
   r.lanPruneDelayOption.valid = n.lanPruneDelayOption().valid;
   r.lanPruneDelayOption.propagationDelay = n.lanPruneDelayOption().propagationDelay;
   r.lanPruneDelayOption.overrideInterval = n.lanPruneDelayOption().overrideInterval;
   r.lanPruneDelayOption.tBit = n.lanPruneDelayOption().tBit;
   r.bfdState = static_cast< std::uint8_t >( n.bfdState() );
   r.portInfo.transport = static_cast< std::uint8_t >( n.portInfo().transport );
   r.portInfo.capabilityFlags = n.portInfo().capabilityFlags;
   r.portInfo.connectionAddr = Addr( n.portInfo().connectionAddr );
   r.portInfo.secondAddr = Addr( n.portInfo().secondAddr );
   r.transportProtocol = static_cast< std::uint8_t >( n.transportProtocol() );
   return r;
}

// ---- KivNeighbor ------------------------------------------------------------------------
StatusWriterSm::KivNeighbor::KivNeighbor(
   KivIntf * owner, const Kiv::Ptr< const ::Routing::Pim::Neighbor > & neighbor )
      : owner_( owner ),
        address_( neighbor ? neighbor->address() : Lumo::IpGenAddr() ) {
   if( !neighbor ) {
      Kiv::throwNullParameter( "neighbor", "Routing::Pim::Varn::StatusWriterSm::KivIntf",
                               "neighbor" );
   }
   notifierIs( neighbor );
}

void StatusWriterSm::KivNeighbor::handleNew() {
   handleNeighbor();
   const auto n = notifier();
   for( auto it = n->secondaryAddressIter(); it; ++it ) handleSecondaryAddress( it.key() );
}

void StatusWriterSm::KivNeighbor::handleNeighbor() {
   KIV_TRACE( th(), 8, "handleNeighbor( " << owner_->id() << ", " << address_ << " )" );
   owner_->sm()->varnStatus()->neighborIs( neighborRow( owner_->id(), *notifier() ) );
}

void StatusWriterSm::KivNeighbor::handleSecondaryAddress( const Lumo::IpGenAddr & addr ) {
   const NeighborSecondaryAddressKey key( owner_->id(), address_, addr );
   Status & varn = *owner_->sm()->varnStatus();
   if( notifier()->secondaryAddress( addr ) ) {
      KIV_TRACE( th(), 7, "handleSecondaryAddress(), Adding secondary address "
                             << addr << " to neighbor " << address_ << " on interface "
                             << owner_->id() );
      varn.neighborSecondaryAddressIs( NeighborSecondaryAddress( key ) );
      secondaryWritten_.tryInsert( addr, true );
   } else {
      KIV_TRACE( th(), 7, "handleSecondaryAddress(), Removing secondary address "
                             << addr << " from neighbor " << address_ << " on interface "
                             << owner_->id() );
      varn.neighborSecondaryAddressDel( key );
      secondaryWritten_.erase( addr );
   }
}

void StatusWriterSm::KivNeighbor::handleDel() {
   KIV_TRACE( th(), 8, "handleDel( " << owner_->id() << ", " << address_ << " )" );
   Status & varn = *owner_->sm()->varnStatus();
   for( auto it = secondaryWritten_.iter(); it; ++it ) {
      varn.neighborSecondaryAddressDel(
         NeighborSecondaryAddressKey( owner_->id(), address_, it.key() ) );
   }
   secondaryWritten_.clear();
   varn.neighborDel( NeighborKey( owner_->id(), address_ ) );
}

// ---- KivIntf -----------------------------------------------------------------------------
StatusWriterSm::KivIntf::KivIntf( KivAllStatus * owner,
                                  const Kiv::Ptr< const ::Routing::Pim::Intf > & intf )
      : owner_( owner ), id_( intf ? intf->id() : Lumo::IntfId() ) {
   if( !intf ) {
      Kiv::throwNullParameter( "intf", "Routing::Pim::Varn::StatusWriterSm::KivAllStatus", "intf" );
   }
   notifierIs( intf );
}

StatusWriterSm * StatusWriterSm::KivIntf::sm() const { return owner_->sm(); }

void StatusWriterSm::KivIntf::handleNew() {
   KIV_TRACE( th(), 8, "handleNew( " << id_ << " )" );
   handleIntf();
   const auto intf = notifier();
   for( auto it = intf->neighborIter(); it; ++it ) handleNeighbor( it.key() );
   for( auto it = intf->inactiveBfdNeighborIter(); it; ++it ) handleInactiveBfdNeighbor( it.key() );
   for( auto it = intf->refusedSourceIter(); it; ++it ) handleRefusedSource( it.key() );
}

void StatusWriterSm::KivIntf::handleIntf() {
   KIV_TRACE( th(), 8, "handleIntf( " << id_ << " )" );
   const auto intf = notifier();
   sm()->varnStatus()->pimIntfIs( intfRow( *intf ) );
   for( auto it = intf->secondaryAddressIter(); it; ++it ) handleSecondaryAddress( it.key() );
   for( auto it = intf->secondaryPrefixIter(); it; ++it ) handleSecondaryPrefix( it.key() );
}

void StatusWriterSm::KivIntf::handleSecondaryAddress( const Lumo::IpGenAddr & addr ) {
   const IntfSecondaryAddressKey key( id_, addr );
   Status & varn = *sm()->varnStatus();
   if( notifier()->secondaryAddress( addr ) ) {
      KIV_TRACE( th(), 7, "handleSecondaryAddress(), Adding secondary address "
                             << addr << " to interface " << id_ );
      varn.intfSecondaryAddressIs( IntfSecondaryAddress( key ) );
      secondaryAddressWritten_.tryInsert( addr, true );
   } else {
      KIV_TRACE( th(), 7, "handleSecondaryAddress(), Removing secondary address "
                             << addr << " from interface " << id_ );
      varn.intfSecondaryAddressDel( key );
      secondaryAddressWritten_.erase( addr );
   }
}

void StatusWriterSm::KivIntf::handleSecondaryPrefix( const Lumo::IpGenPrefix & prefix ) {
   const IntfSecondaryPrefixKey key( id_, prefix );
   Status & varn = *sm()->varnStatus();
   if( notifier()->secondaryPrefix( prefix ) ) {
      KIV_TRACE( th(), 7, "handleSecondaryPrefix(), Adding secondary prefix "
                             << prefix << " to interface " << id_ );
      varn.intfSecondaryPrefixIs( IntfSecondaryPrefix( key ) );
      secondaryPrefixWritten_.tryInsert( prefix, true );
   } else {
      KIV_TRACE( th(), 7, "handleSecondaryPrefix(), Removing secondary prefix "
                             << prefix << " from interface " << id_ );
      varn.intfSecondaryPrefixDel( key );
      secondaryPrefixWritten_.erase( prefix );
   }
}

void StatusWriterSm::KivIntf::handleInactiveBfdNeighbor( const Lumo::IpGenAddr & addr ) {
   const NeighborKey key( id_, addr );
   Status & varn = *sm()->varnStatus();
   if( notifier()->inactiveBfdNeighbor( addr ) ) {
      KIV_TRACE( th(), 7, "handleInactiveBfdNeighbor(), Adding inactive neighbor "
                             << addr << " on interface " << id_ );
      varn.inactiveNeighborIs( NeighborRef( key ) );
      inactiveWritten_.tryInsert( addr, true );
   } else {
      KIV_TRACE( th(), 7, "handleInactiveBfdNeighbor(), Removing inactive neighbor "
                             << addr << " on interface " << id_ );
      varn.inactiveNeighborDel( key );
      inactiveWritten_.erase( addr );
   }
}

void StatusWriterSm::KivIntf::handleRefusedSource( const Lumo::IpGenAddr & addr ) {
   const NeighborKey key( id_, addr );
   Status & varn = *sm()->varnStatus();
   if( notifier()->refusedSourceHas( addr ) ) {
      const RefusedSource src = notifier()->refusedSource( addr );
      RefusedNeighbor row( key );
      row.count = src.count;
      row.lastTime = src.lastTime;
      varn.refusedNeighborIs( row );
      refusedWritten_.tryInsert( addr, true );
   } else {
      varn.refusedNeighborDel( key );
      refusedWritten_.erase( addr );
   }
}

void StatusWriterSm::KivIntf::handleNeighbor( const Lumo::IpGenAddr & addr ) {
   const auto nbr = notifier()->neighbor( addr );
   std::unique_ptr< KivNeighbor > * existing = neighbor_.find( addr );
   if( nbr ) {
      // A neighbour replaced under the same address gets a fresh reactor.
      if( existing && ( *existing )->notifier() == nbr ) return;
      if( existing ) {
         ( *existing )->handleDel();
         neighbor_.erase( addr );
      }
      auto r = std::make_unique< KivNeighbor >( this, nbr );
      KivNeighbor * raw = r.get();
      neighbor_.tryInsert( addr, std::move( r ) );
      raw->handleNew();
   } else if( existing ) {
      std::unique_ptr< KivNeighbor > gone = std::move( *existing );
      neighbor_.erase( addr );
      gone->handleDel();
   }
}

void StatusWriterSm::KivIntf::handleDel() {
   KIV_TRACE( th(), 8, "handleDel( " << id_ << " )" );
   Status & varn = *sm()->varnStatus();
   for( auto it = inactiveWritten_.iter(); it; ++it ) {
      varn.inactiveNeighborDel( NeighborKey( id_, it.key() ) );
   }
   inactiveWritten_.clear();
   for( auto it = refusedWritten_.iter(); it; ++it ) varn.refusedNeighborDel( NeighborKey( id_, it.key() ) );
   refusedWritten_.clear();
   while( const Lumo::IpGenAddr * a = neighbor_.firstKey() ) {
      const Lumo::IpGenAddr addr = *a;
      std::unique_ptr< KivNeighbor > gone = std::move( *neighbor_.find( addr ) );
      neighbor_.erase( addr );
      gone->handleDel();
   }
   for( auto it = secondaryAddressWritten_.iter(); it; ++it ) {
      varn.intfSecondaryAddressDel( IntfSecondaryAddressKey( id_, it.key() ) );
   }
   secondaryAddressWritten_.clear();
   for( auto it = secondaryPrefixWritten_.iter(); it; ++it ) {
      varn.intfSecondaryPrefixDel( IntfSecondaryPrefixKey( id_, it.key() ) );
   }
   secondaryPrefixWritten_.clear();
   varn.pimIntfDel( IntfKey( id_ ) );
}

// ---- KivAllStatus --------------------------------------------------------------------------
StatusWriterSm::KivAllStatus::KivAllStatus(
   StatusWriterSm * owner, const Kiv::Ptr< const ::Routing::Pim::AllStatus > & s )
      : owner_( owner ) {
   notifierIs( s );
   for( auto it = s->pimIntfIter(); it; ++it ) handlePimIntf( it.key() );
   // Drop what is no longer there (a no-op for a fresh writer, kept for the
   // rebinding case).
   for( auto it = intf_.iter(); it; ++it ) {
      if( !s->pimIntfHas( it.key() ) ) handlePimIntf( it.key() );
   }
}

StatusWriterSm::KivAllStatus::~KivAllStatus() = default;

void StatusWriterSm::KivAllStatus::handleDelAll() {
   KIV_TRACE( th(), 8, "handleDelAll()" );
   while( const Lumo::IntfId * id = intf_.firstKey() ) {
      const Lumo::IntfId key = *id;
      std::unique_ptr< KivIntf > gone = std::move( *intf_.find( key ) );
      intf_.erase( key );
      gone->handleDel();
   }
}

StatusWriterSm::KivIntf * StatusWriterSm::KivAllStatus::intf( const Lumo::IntfId & id ) const {
   const std::unique_ptr< KivIntf > * p = intf_.find( id );
   return p ? p->get() : nullptr;
}

void StatusWriterSm::KivAllStatus::handlePimIntf( const Lumo::IntfId & id ) {
   KIV_TRACE( th(), 8, "handlePimIntf( " << id << " )" );
   const auto intf = notifier()->pimIntf( id );
   std::unique_ptr< KivIntf > * existing = intf_.find( id );
   if( intf ) {
      if( existing && ( *existing )->notifier() == intf ) return;
      if( existing ) {
         ( *existing )->handleDel();
         intf_.erase( id );
      }
      auto r = std::make_unique< KivIntf >( this, intf );
      KivIntf * raw = r.get();
      intf_.tryInsert( id, std::move( r ) );
      raw->handleNew();
   } else if( existing ) {
      std::unique_ptr< KivIntf > gone = std::move( *existing );
      intf_.erase( id );
      gone->handleDel();
   }
}

// ---- StatusWriterSm ---------------------------------------------------------------------------
StatusWriterSm::StatusWriterSm( const L3::VrfName & vrfName,
                                const Kiv::Ptr< const ::Routing::Pim::AllStatus > & allStatus,
                                const Kiv::Ptr< Status > & varnStatus )
      : vrfName_( vrfName ), varnStatus_( Kiv::ValidPtr< Status >( varnStatus ) ) {
   Kiv::ValidPtr< const ::Routing::Pim::AllStatus > s( allStatus );
   KIV_TRACE( th(), 8, "<Vrf:" << vrfName_ << ">StatusWriterSm()" );
   dropStaleRows( *s );
   allStatus_ = std::make_unique< KivAllStatus >( this, s );
}

StatusWriterSm::~StatusWriterSm() {
   KIV_TRACE( th(), 8, "<Vrf:" << vrfName_ << ">~StatusWriterSm()" );
   if( allStatus_ ) allStatus_->handleDelAll();
}

void StatusWriterSm::dropStaleRows( const ::Routing::Pim::AllStatus & all ) {
   Status & varn = *varnStatus_;
   const auto intf = [ & ]( const IntfName & n ) { return all.pimIntf( n.intfId() ); };
   const auto neighbor = [ & ]( const IntfName & n, const Addr & a ) {
      const auto i = intf( n );
      return i ? i->neighbor( a.ipGenAddr() ) : nullptr;
   };
   std::vector< NeighborKey > inactive, neighbors;
   std::vector< NeighborSecondaryAddressKey > neighborSecondaries;
   std::vector< IntfSecondaryAddressKey > intfSecondaries;
   std::vector< IntfSecondaryPrefixKey > prefixes;
   std::vector< IntfKey > intfs;
   varn.inactiveNeighbor().forEach( [ & ]( const NeighborRef & r ) {
      const auto i = intf( r.key.intf );
      if( !i || !i->inactiveBfdNeighbor( r.key.addr.ipGenAddr() ) ) inactive.push_back( r.key );
   } );
   varn.neighborSecondaryAddress().forEach( [ & ]( const NeighborSecondaryAddress & r ) {
      const auto n = neighbor( r.key.intf, r.key.neighbor );
      if( !n || !n->secondaryAddress( r.key.secondary.ipGenAddr() ) ) neighborSecondaries.push_back( r.key );
   } );
   varn.neighbor().forEach( [ & ]( const Neighbor & r ) {
      if( !neighbor( r.key.intf, r.key.addr ) ) neighbors.push_back( r.key );
   } );
   varn.intfSecondaryAddress().forEach( [ & ]( const IntfSecondaryAddress & r ) {
      const auto i = intf( r.key.intf );
      if( !i || !i->secondaryAddress( r.key.addr.ipGenAddr() ) ) intfSecondaries.push_back( r.key );
   } );
   varn.intfSecondaryPrefix().forEach( [ & ]( const IntfSecondaryPrefix & r ) {
      const auto i = intf( r.key.intf );
      if( !i || !i->secondaryPrefix( r.key.prefix.ipGenPrefix() ) ) prefixes.push_back( r.key );
   } );
   varn.pimIntf().forEach( [ & ]( const Intf & r ) {
      if( !intf( r.key.intf ) ) intfs.push_back( r.key );
   } );
   const std::size_t stale = inactive.size() + neighborSecondaries.size() + neighbors.size() +
                             intfSecondaries.size() + prefixes.size() + intfs.size();
   if( stale ) KIV_TRACE( th(), 5, "<Vrf:" << vrfName_ << ">dropStaleRows(), " << stale << " rows" );
   for( const auto & k : inactive ) varn.inactiveNeighborDel( k );
   for( const auto & k : neighborSecondaries ) varn.neighborSecondaryAddressDel( k );
   for( const auto & k : neighbors ) varn.neighborDel( k );
   for( const auto & k : intfSecondaries ) varn.intfSecondaryAddressDel( k );
   for( const auto & k : prefixes ) varn.intfSecondaryPrefixDel( k );
   for( const auto & k : intfs ) varn.pimIntfDel( k );
}

Kiv::Ptr< StatusWriterSm > StatusWriterSmIs( const L3::VrfName & vrfName,
                                             const Kiv::Ptr< const ::Routing::Pim::AllStatus > & allStatus,
                                             const Kiv::Ptr< Status > & varnStatus ) {
   return Kiv::make< StatusWriterSm >( vrfName, allStatus, varnStatus );
}

} // namespace Routing::Pim::Varn
