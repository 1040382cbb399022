#include "hello/PimHelloSm.h"

#include "kiv/Clock.h"
#include "kiv/Log.h"
#include "kiv/Trace.h"

namespace Routing::Pim {

KIV_TRACE_HANDLE( "Pim::Hello" )

namespace {

Kiv::LogHandle PIM_MODE_MISMATCH( "PIM_MODE_MISMATCH", Kiv::LogWarning,
                                  "Neighbor %s is running %s, while interface %s is running %s.",
                                  "The PIM neighbor state cannot be formed due to mismatch in mode.",
                                  "Configure the same PIM mode on the interface and on the neighbor.",
                                  0.0, 1.0, 0 );

Kiv::LogHandle PIM_NEIGHBOR_LIMIT( "PIM_NEIGHBOR_LIMIT", Kiv::LogWarning,
                                  "Refused neighbor %s on interface %s: the %s limit of %u neighbors is "
                                  "reached (%u refused on the interface so far)",
                                  "A Hello from a new neighbor was refused because the interface or the VRF "
                                  "already has as many neighbors as its limit allows. The sources refused "
                                  "most recently are shown with the interface's status.",
                                  "Check the segment for spoofed Hellos, or raise the neighbor limit.",
                                  60.0, 0.0, 0 );

// The directed broadcast of an IPv4 subnet; nothing for /31, /32 and IPv6.
bool isSubnetBroadcast( const Lumo::IpGenAddrWithMask & awm, const Lumo::IpGenAddr & a ) {
   if( !a.isIpv4() || !awm.address().isIpv4() || awm.maskLen() == 0 || awm.maskLen() > 30 ) return false;
   const std::uint32_t host = ~std::uint32_t( 0 ) >> awm.maskLen();
   return awm.contains( a ) && ( a.v4HostOrder() & host ) == host;
}
bool isSubnetNetwork( const Lumo::IpGenAddrWithMask & awm, const Lumo::IpGenAddr & a ) {
   if( !a.isIpv4() || !awm.address().isIpv4() || awm.maskLen() == 0 || awm.maskLen() > 30 ) return false;
   const std::uint32_t host = ~std::uint32_t( 0 ) >> awm.maskLen();
   return awm.contains( a ) && ( a.v4HostOrder() & host ) == 0;
}

const Lumo::IpGenAddr kIpv6Loopback( Lumo::IpGenAddr::Bytes16{ 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1 } );

// Why a listed secondary address cannot stand for a neighbour, or null.
const char * unusableSecondary( const Intf & intf, const Lumo::IpGenAddr & a ) {
   if( a.isEmpty() || a.af() != intf.addressWithMask().af() ) return "of another family";
   if( a.isUnspecified() ) return "unspecified";
   if( a.isMulticast() ) return "multicast";
   if( a.isIpv4() && ( a.v4HostOrder() >> 24 ) == 127 ) return "loopback";
   if( a.isIpv6() && a == kIpv6Loopback ) return "loopback";
   if( a.isIpv4() && ( a.v4HostOrder() == 0xFFFFFFFFu || isSubnetBroadcast( intf.addressWithMask(), a ) ) ) {
      return "broadcast";
   }
   if( a.isIpv6() && a.isLinkLocal() ) return "link-local";
   if( a == intf.addressWithMask().address() || a == intf.usedAddressWithMask().address() ||
       intf.secondaryAddress( a ) ) {
      return "one of our own addresses";
   }
   if( intf.neighborColl().find( a ) ) return "the primary address of another neighbor";
   return nullptr;
}

// The source must share the interface's configured subnet (same family; an
// IPv4 mask length of 0 accepts anything).
bool sameSubnet( const Lumo::IpGenAddrWithMask & awm, const Lumo::IpGenAddr & src ) {
   if( src.af() != awm.af() ) return false;
   if( src.isIpv4() ) {
      if( awm.maskLen() == 0 ) return true;
      return Lumo::IpGenAddr::samePrefix( src, awm.address(), awm.maskLen() );
   }
   if( src.isIpv6() ) return awm.contains( src );
   return false;
}

} // namespace

#define HTRACE( level, expr ) \
   KIV_TRACE( th(), level, "<Vrf:" << allStatus_->vrfName() << ">" << expr )

HelloSm::HelloSm( const Kiv::Ptr< AllStatus > & allStatus,
                  const Kiv::Ptr< const IO::MessageInfo > & messageInfo )
      : allStatus_( Kiv::ValidPtr< AllStatus >( allStatus ) ), helloMessageInfo_( this ) {
   const Kiv::ValidPtr< const IO::MessageInfo > info( messageInfo );
   helloMessageInfo_.kivOwnerIs( this );
   helloMessageInfo_.notifierIs( info );
}

HelloSm::~HelloSm() {
   kivDoZombieReactors( true );
}

void HelloSm::handleHelloMessage() {
   HTRACE( 9, "void Routing::Pim::HelloSm::handleHelloMessage()" );
   const auto * info = static_cast< const IO::MessageInfo * >( helloMessageInfo_.kivNotifier() );
   if( !info ) return;
   const Kiv::Ptr< const Packet::HelloMessage > hello = info->helloMessage();
   if( !hello ) {
      HTRACE( 1, "Error - No Message" );
      return;
   }
   HTRACE( 4, "RX: <PIM " << *hello << ">" );

   const Lumo::IntfId & intfId = info->intfId();
   const Kiv::Ptr< Intf > * intfSlot = allStatus_->pimIntfColl().find( intfId );
   if( !intfSlot ) {
      HTRACE( 1, "Error - No Interface - Id: " << intfId );
      return;
   }
   const Kiv::Ptr< Intf > & intf = *intfSlot;
   const Lumo::IpGenAddr & src = hello->srcAddr();
   if( !sourceAcceptable( *intf, intfId, src ) ) return;

   const std::uint16_t holdTime = hello->holdTimePresent() ? hello->holdTime() : intf->helloHoldTime();
   // A goodbye skips the mode check on purpose: it must always be honoured.
   if( holdTime != kHoldTimeGoodbye && modeIncludesBidir( intf->mode() ) && !hello->bidirCapable() ) {
      PIM_MODE_MISMATCH.log( Lumo::valueToStrep( src ), modeName( pimModeSparse ),
                             Lumo::valueToStrep( intfId ), modeName( intf->mode() ) );
      return;
   }

   const Kiv::Ptr< Neighbor > neighbor = refreshOrCreateNeighbor( hello, intf, intfId, holdTime );
   if( !neighbor ) return;
   updateSecondaryAddresses( hello, intf, intfId, neighbor );
   processPortOptions( hello, intf, neighbor );
}

bool HelloSm::sourceAcceptable( Intf & intf, const Lumo::IntfId & intfId, const Lumo::IpGenAddr & src ) {
   const Lumo::IpGenAddrWithMask & awm = intf.addressWithMask();
   if( !sameSubnet( awm, src ) ) {
      HTRACE( 1, "Error - Neighbor " << src << " is not in the same subnet as received interface "
                                     << intfId << " with configured address " << awm );
      return false;
   }
   if( src == awm.address() ) {
      HTRACE( 1, "Error - Neighbor " << src << " is the same as interface address for " << intfId );
      return false;
   }

   if( isSubnetNetwork( awm, src ) || isSubnetBroadcast( awm, src ) ) {
      HTRACE( 1, "Error - Neighbor " << src << " is the network or broadcast address of interface "
                                     << intfId << " with configured address " << awm );
      intf.refusedSourceAddressCountInc( 1 );
      return false;
   }
   return true;
}

Kiv::Ptr< Neighbor > HelloSm::refreshOrCreateNeighbor( const Kiv::Ptr< const Packet::HelloMessage > & hello,
                                                       const Kiv::Ptr< Intf > & intf,
                                                       const Lumo::IntfId & intfId, std::uint16_t holdTime ) {
   const Lumo::IpGenAddr & src = hello->srcAddr();
   DrPriorityOption drOption;
   if( hello->drPriorityPresent() ) {
      drOption.valid = true;
      drOption.value = hello->drPriority();
   }
   GenerationIdOption genIdOption;
   if( hello->generationIdPresent() ) {
      genIdOption.valid = true;
      genIdOption.value = hello->generationId();
   }
   LanPruneDelayOption lpdOption;
   if( hello->lanPruneDelayPresent() ) {
      lpdOption.valid = true;
      lpdOption.propagationDelay = hello->propagationDelay();
      lpdOption.overrideInterval = hello->overrideInterval();
      lpdOption.tBit = hello->tBit();
   }

   const double now = Kiv::System::currentTime();
   Kiv::Ptr< Neighbor > neighbor;
   if( const Kiv::Ptr< Neighbor > * slot = intf->neighborColl().find( src ) ) {
      neighbor = *slot;
      // The refresh time goes first so that NeighborSm re-arms from it.
      neighbor->lastRefreshTimeIs( now );
      HTRACE( 3, "Refreshing neighbor " << src << " on interface " << intfId );
      neighbor->holdTimeIs( holdTime );
      neighbor->drPriorityOptionIs( drOption );
      neighbor->generationIdOptionIs( genIdOption );
      neighbor->lanPruneDelayOptionIs( lpdOption );
   } else {
      if( holdTime == kHoldTimeGoodbye ) {
         return nullptr;   // a goodbye from a stranger
      }
      if( !admitNeighbor( *intf, src, now ) ) return nullptr;
      neighbor = intf->neighborIs( src, intf->id(), holdTime, drOption, genIdOption, lpdOption );
      neighbor->creationTimeIs( now );
      neighbor->lastRefreshTimeIs( neighbor->creationTime() );
      HTRACE( 3, "Creating neighbor " << src << " on interface " << intfId );
      // A primary address outranks anyone's secondary claim to it.
      if( intf->nbSecondaryAddressHas( src ) ) {
         const Lumo::IpGenAddr owner = intf->nbSecondaryAddress( src );
         HTRACE( 1, "Error - Secondary address " << src << " of neighbor " << owner << " on interface "
                                                 << intfId << " is now the primary address of a neighbor" );
         intf->ignoredSecondaryCountInc( 1 );
         if( const Kiv::Ptr< Neighbor > earlier = intf->neighbor( owner ) ) earlier->secondaryAddressDel( src );
      }
   }
   return neighbor;
}

void HelloSm::updateSecondaryAddresses( const Kiv::Ptr< const Packet::HelloMessage > & hello,
                                        const Kiv::Ptr< Intf > & intf, const Lumo::IntfId & intfId,
                                        const Kiv::Ptr< Neighbor > & neighbor ) {
   const Lumo::IpGenAddr & src = hello->srcAddr();
   if( hello->secondaryAddrSize() == 0 ) {
      neighbor->secondaryAddressDelAll();
   } else {
      // What this Hello lets the neighbour keep: the usable addresses, up to
      // the per-neighbour limit.
      Kiv::HashMap< Lumo::IpGenAddr, bool > kept;
      for( auto it = hello->secondaryAddrIter(); it; ++it ) {
         const Lumo::IpGenAddr & addr = it.key();
         HTRACE( 8, "Checking secondary address: " << addr );
         if( addr == src ) {
            HTRACE( 1, "Error - Secondary address " << addr << " is the primary address for neighbor "
                                                    << src << " on interface " << intfId );
            continue;
         }
         if( const char * why = unusableSecondary( *intf, addr ) ) {
            HTRACE( 1, "Error - Secondary address " << addr << " of neighbor " << src << " on interface "
                                                    << intfId << " is " << why << "; ignored" );
            intf->ignoredSecondaryCountInc( 1 );
            continue;
         }
         if( kept.size() >= kNeighborSecondaryAddressLimit ) {
            HTRACE( 1, "Error - Secondary address " << addr << " of neighbor " << src << " on interface "
                                                    << intfId << " is beyond the limit of "
                                                    << kNeighborSecondaryAddressLimit << "; ignored" );
            intf->ignoredSecondaryCountInc( 1 );
            continue;
         }
         kept.insertOrAssign( addr, true );
         if( neighbor->secondaryAddress( addr ) ) continue;
         HTRACE( 8, "Adding secondary address " << addr << " for neighbor " << src
                                                << " on interface " << intfId );
         neighbor->secondaryAddressIs( addr, true );
      }
      for( auto it = neighbor->secondaryAddressIter(); it; ++it ) {
         const Lumo::IpGenAddr addr = it.key();
         HTRACE( 8, "Verifying learnt secondary address: " << addr );
         if( !kept.contains( addr ) ) {
            HTRACE( 8, "Removing secondary address " << addr << " for neighbor " << src
                                                     << " on interface " << intfId );
            neighbor->secondaryAddressDel( addr );
         }
      }
   }
}

bool HelloSm::admitNeighbor( Intf & intf, const Lumo::IpGenAddr & src, double now ) {
   const char * limitName = nullptr;
   std::uint32_t limit = 0;
   if( intf.neighborSize() >= intf.neighborLimit() ) {
      limitName = "interface";
      limit = intf.neighborLimit();
   } else {
      // Counted on demand: a handful of interfaces, and only for strangers.
      std::size_t inVrf = 0;
      for( auto it = allStatus_->pimIntfIter(); it; ++it ) inVrf += it.value()->neighborSize();
      if( inVrf < allStatus_->neighborLimit() ) return true;
      limitName = "VRF";
      limit = allStatus_->neighborLimit();
   }
   HTRACE( 1, "Error - Neighbor " << src << " refused on interface " << intf.id() << ": " << limitName
                                  << " neighbor limit " << limit << " reached" );
   intf.refusedNeighborCountInc( 1 );
   noteRefusedSource( intf, src, now );
   PIM_NEIGHBOR_LIMIT.log( Lumo::valueToStrep( src ), Lumo::valueToStrep( intf.id() ), limitName, limit,
                           intf.refusedNeighborCount() );
   return false;
}

void HelloSm::noteRefusedSource( Intf & intf, const Lumo::IpGenAddr & src, double now ) {
   RefusedSource r = intf.refusedSource( src );
   if( !intf.refusedSourceHas( src ) && intf.refusedSourceSize() >= kRefusedSourcesKept ) {
      // Full: the source heard from least recently makes room.
      Lumo::IpGenAddr oldest;
      double oldestTime = 0.0;
      for( auto it = intf.refusedSourceIter(); it; ++it ) {
         if( oldest.isEmpty() || it.value().lastTime < oldestTime ) {
            oldest = it.key();
            oldestTime = it.value().lastTime;
         }
      }
      intf.refusedSourceDel( oldest );
   }
   ++r.count;
   r.lastTime = now;
   intf.refusedSourceIs( src, r );
}

void HelloSm::processPortOptions( const Kiv::Ptr< const Packet::HelloMessage > & hello,
                                  const Kiv::Ptr< Intf > &, const Kiv::Ptr< Neighbor > & neighbor ) {
   HTRACE( 9, "void Routing::Pim::HelloSm::processPortOptions(const PtrConst&, const Ptr&, const Ptr&)" );
   if( !hello || !neighbor ) return;
   if( hello->portOptionPresent() && hello->portCapabilityFlags() != 0 ) {
      Reliable::NeighborInfo info;
      info.transport = static_cast< Reliable::Protocol >( hello->portTransport() );
      info.capabilityFlags = hello->portCapabilityFlags();
      info.connectionAddr = hello->connectionAddr();
      info.secondAddr = hello->portSecondAddr();
      HTRACE( 8, "Port capability match : Sctp: " << info );
      neighbor->portInfoIs( info );
   } else {
      HTRACE( 9, "No port Capability " );
      // Clears what an earlier Hello may have set.
      neighbor->portInfoIs( Reliable::NeighborInfo{} );
   }
}

Kiv::Ptr< HelloSm > HelloSmIs( const Kiv::Ptr< AllStatus > & allStatus,
                               const Kiv::Ptr< const IO::MessageInfo > & messageInfo ) {
   Kiv::Ptr< HelloSm > sm = Kiv::make< HelloSm >( allStatus, messageInfo );
   sm->kivDoZombieReactors( false );
   return sm;
}

Kiv::Ptr< HelloSm > helloSmFactory( const Kiv::Ptr< AllStatus > & allStatus,
                                    const Kiv::Ptr< const IO::MessageInfo > & messageInfo ) {
   return HelloSmIs( allStatus, messageInfo );
}

} // namespace Routing::Pim
