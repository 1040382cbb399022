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

// ---- shared by the three levels ----------------------------------------------------------
namespace {

// A child reactor follows the entity under its key: a new or replaced entity
// gets a fresh reactor, which writes its rows; one that went takes its rows
// with it.
template< class K, class R, class Parent, class E >
void followChild( Kiv::ReactorMap< K, R > & children, Parent * parent, const K & key,
                  const Kiv::Ptr< E > & entity ) {
   const R * existing = children.find( key );
   if( existing && entity && existing->notifier() == entity ) return;
   if( existing ) children.take( key )->handleDel();
   if( entity ) children.insert( key, std::make_unique< R >( parent, entity ) ).handleNew();
}

// Every child takes its rows with it, in the order they came.
template< class K, class R >
void dropChildren( Kiv::ReactorMap< K, R > & children ) {
   while( const K * first = children.firstKey() ) {
      const K key = *first;
      children.take( key )->handleDel();
   }
}

// The row of one member of a set: written while the member is there (add),
// deleted once it is not (del); written remembers the rows this level owns.
template< class K, class Add, class Del >
void mirrorMember( bool present, Kiv::HashMap< K, bool > & written, const K & member, Add && add,
                   Del && del ) {
   if( present ) {
      add();
      written.tryInsert( member, true );
   } else {
      del();
      written.erase( member );
   }
}

// Deletes every row this level wrote for one set.
template< class K, class Del >
void dropWritten( Kiv::HashMap< K, bool > & written, Del && del ) {
   for( auto it = written.iter(); it; ++it ) del( it.key() );
   written.clear();
}

} // namespace

// ---- KivNeighbor ------------------------------------------------------------------------
StatusWriterSm::KivNeighbor::KivNeighbor(
   KivIntf * owner, const Kiv::Ptr< const ::Routing::Pim::Neighbor > & neighbor )
      : KeyedReactor( owner, neighbor ? neighbor->address() : Lumo::IpGenAddr() ) {
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
   KIV_TRACE( th(), 8, "handleNeighbor( " << owner_->id() << ", " << key_ << " )" );
   owner_->sm()->varnStatus()->neighborIs( neighborRow( owner_->id(), *notifier() ) );
}

void StatusWriterSm::KivNeighbor::handleSecondaryAddress( const Lumo::IpGenAddr & addr ) {
   const NeighborSecondaryAddressKey key( owner_->id(), key_, addr );
   Status & varn = *owner_->sm()->varnStatus();
   mirrorMember( notifier()->secondaryAddress( addr ), secondaryWritten_, addr, [ & ] {
      KIV_TRACE( th(), 7, "handleSecondaryAddress(), Adding secondary address "
                             << addr << " to neighbor " << key_ << " on interface "
                             << owner_->id() );
      varn.neighborSecondaryAddressIs( NeighborSecondaryAddress( key ) );
   }, [ & ] {
      KIV_TRACE( th(), 7, "handleSecondaryAddress(), Removing secondary address "
                             << addr << " from neighbor " << key_ << " on interface "
                             << owner_->id() );
      varn.neighborSecondaryAddressDel( key );
   } );
}

void StatusWriterSm::KivNeighbor::handleDel() {
   KIV_TRACE( th(), 8, "handleDel( " << owner_->id() << ", " << key_ << " )" );
   Status & varn = *owner_->sm()->varnStatus();
   dropWritten( secondaryWritten_, [ & ]( const Lumo::IpGenAddr & a ) {
      varn.neighborSecondaryAddressDel( NeighborSecondaryAddressKey( owner_->id(), key_, a ) );
   } );
   varn.neighborDel( NeighborKey( owner_->id(), key_ ) );
}

// ---- KivIntf -----------------------------------------------------------------------------
StatusWriterSm::KivIntf::KivIntf( KivAllStatus * owner,
                                  const Kiv::Ptr< const ::Routing::Pim::Intf > & intf )
      : KeyedReactor( owner, intf ? intf->id() : Lumo::IntfId() ) {
   if( !intf ) {
      Kiv::throwNullParameter( "intf", "Routing::Pim::Varn::StatusWriterSm::KivAllStatus", "intf" );
   }
   notifierIs( intf );
}

StatusWriterSm * StatusWriterSm::KivIntf::sm() const { return owner_->sm(); }

void StatusWriterSm::KivIntf::handleNew() {
   KIV_TRACE( th(), 8, "handleNew( " << key_ << " )" );
   handleIntf();
   const auto intf = notifier();
   for( auto it = intf->neighborIter(); it; ++it ) handleNeighbor( it.key() );
   for( auto it = intf->inactiveBfdNeighborIter(); it; ++it ) handleInactiveBfdNeighbor( it.key() );
   for( auto it = intf->refusedSourceIter(); it; ++it ) handleRefusedSource( it.key() );
}

void StatusWriterSm::KivIntf::handleIntf() {
   KIV_TRACE( th(), 8, "handleIntf( " << key_ << " )" );
   const auto intf = notifier();
   sm()->varnStatus()->pimIntfIs( intfRow( *intf ) );
   for( auto it = intf->secondaryAddressIter(); it; ++it ) handleSecondaryAddress( it.key() );
   for( auto it = intf->secondaryPrefixIter(); it; ++it ) handleSecondaryPrefix( it.key() );
}

// The row of one member of the interface's sets, traced as
// "<fn>(), Adding <noun> <member> <to> interface <id>" and
// "<fn>(), Removing <noun> <member> <from> interface <id>".
template< class K, class Add, class Del >
void StatusWriterSm::KivIntf::mirrorTraced( const MemberText & text, bool present, Kiv::HashMap< K, bool > & written,
                                            const K & member, Add && add, Del && del ) {
   mirrorMember( present, written, member, [ & ] {
      KIV_TRACE( th(), 7, text.fn << "(), Adding " << text.noun << " " << member << " " << text.to
                                  << " interface " << key_ );
      add();
   }, [ & ] {
      KIV_TRACE( th(), 7, text.fn << "(), Removing " << text.noun << " " << member << " " << text.from
                                  << " interface " << key_ );
      del();
   } );
}

void StatusWriterSm::KivIntf::handleSecondaryAddress( const Lumo::IpGenAddr & addr ) {
   const IntfSecondaryAddressKey key( key_, addr );
   Status & varn = *sm()->varnStatus();
   mirrorTraced( { "handleSecondaryAddress", "secondary address", "to", "from" },
                 notifier()->secondaryAddress( addr ), secondaryAddressWritten_, addr,
                 [ & ] { varn.intfSecondaryAddressIs( IntfSecondaryAddress( key ) ); },
                 [ & ] { varn.intfSecondaryAddressDel( key ); } );
}

void StatusWriterSm::KivIntf::handleSecondaryPrefix( const Lumo::IpGenPrefix & prefix ) {
   const IntfSecondaryPrefixKey key( key_, prefix );
   Status & varn = *sm()->varnStatus();
   mirrorTraced( { "handleSecondaryPrefix", "secondary prefix", "to", "from" },
                 notifier()->secondaryPrefix( prefix ), secondaryPrefixWritten_, prefix,
                 [ & ] { varn.intfSecondaryPrefixIs( IntfSecondaryPrefix( key ) ); },
                 [ & ] { varn.intfSecondaryPrefixDel( key ); } );
}

void StatusWriterSm::KivIntf::handleInactiveBfdNeighbor( const Lumo::IpGenAddr & addr ) {
   const NeighborKey key( key_, addr );
   Status & varn = *sm()->varnStatus();
   mirrorTraced( { "handleInactiveBfdNeighbor", "inactive neighbor", "on", "on" },
                 bool( notifier()->inactiveBfdNeighbor( addr ) ), inactiveWritten_, addr,
                 [ & ] { varn.inactiveNeighborIs( NeighborRef( key ) ); },
                 [ & ] { varn.inactiveNeighborDel( key ); } );
}

void StatusWriterSm::KivIntf::handleRefusedSource( const Lumo::IpGenAddr & addr ) {
   const NeighborKey key( key_, addr );
   Status & varn = *sm()->varnStatus();
   mirrorMember( notifier()->refusedSourceHas( addr ), refusedWritten_, addr, [ & ] {
      const RefusedSource src = notifier()->refusedSource( addr );
      RefusedNeighbor row( key );
      row.count = src.count;
      row.lastTime = src.lastTime;
      varn.refusedNeighborIs( row );
   }, [ & ] { varn.refusedNeighborDel( key ); } );
}

void StatusWriterSm::KivIntf::handleNeighbor( const Lumo::IpGenAddr & addr ) {
   // A neighbour replaced under the same address gets a fresh reactor.
   followChild( neighbor_, this, addr, notifier()->neighbor( addr ) );
}

void StatusWriterSm::KivIntf::handleDel() {
   KIV_TRACE( th(), 8, "handleDel( " << key_ << " )" );
   Status & varn = *sm()->varnStatus();
   dropWritten( inactiveWritten_, [ & ]( const Lumo::IpGenAddr & a ) {
      varn.inactiveNeighborDel( NeighborKey( key_, a ) );
   } );
   dropWritten( refusedWritten_, [ & ]( const Lumo::IpGenAddr & a ) {
      varn.refusedNeighborDel( NeighborKey( key_, a ) );
   } );
   dropChildren( neighbor_ );
   dropWritten( secondaryAddressWritten_, [ & ]( const Lumo::IpGenAddr & a ) {
      varn.intfSecondaryAddressDel( IntfSecondaryAddressKey( key_, a ) );
   } );
   dropWritten( secondaryPrefixWritten_, [ & ]( const Lumo::IpGenPrefix & p ) {
      varn.intfSecondaryPrefixDel( IntfSecondaryPrefixKey( key_, p ) );
   } );
   varn.pimIntfDel( IntfKey( key_ ) );
}

// ---- KivAllStatus --------------------------------------------------------------------------
StatusWriterSm::KivAllStatus::KivAllStatus(
   StatusWriterSm * owner, const Kiv::Ptr< const ::Routing::Pim::AllStatus > & s )
      : OwnedReactor( owner ) {
   notifierIs( s );
   for( auto it = s->pimIntfIter(); it; ++it ) handlePimIntf( it.key() );
}

StatusWriterSm::KivAllStatus::~KivAllStatus() = default;

void StatusWriterSm::KivAllStatus::handleDelAll() {
   KIV_TRACE( th(), 8, "handleDelAll()" );
   dropChildren( intf_ );
}

StatusWriterSm::KivIntf * StatusWriterSm::KivAllStatus::intf( const Lumo::IntfId & id ) const {
   return intf_.find( id );
}

void StatusWriterSm::KivAllStatus::handlePimIntf( const Lumo::IntfId & id ) {
   KIV_TRACE( th(), 8, "handlePimIntf( " << id << " )" );
   followChild( intf_, this, id, notifier()->pimIntf( id ) );
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
