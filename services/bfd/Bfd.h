#pragma once
// The BFD service as the PIM agent sees it: the peer sessions an application
// asks for (AppConfig), their states (AppStatus / BfdPeerStatus), and the
// operational states of RFC 5880.
#include <cstdint>
#include <functional>
#include <ostream>
#include <string>

#include "kiv/Entity.h"
#include "kiv/EntityMacros.h"
#include "lumo/IpGenAddr.h"
#include "lumo/VrfName.h"

namespace Bfd {

enum OperState : std::uint8_t {
   operAdminDown = 0,
   operDown = 1,
   operInit = 2,
   operUp = 3,
};
const char * operStateName( OperState s );
std::ostream & operator<<( std::ostream & os, OperState s );

// One BFD session: the peer address within a VRF.
struct Peer {
   Lumo::IpGenAddr ip;
   L3::VrfName vrf;
   Peer() = default;
   Peer( const Lumo::IpGenAddr & a, const L3::VrfName & v ) : ip( a ), vrf( v ) {}
   bool operator==( const Peer & ) const = default;
   bool operator<( const Peer & o ) const { return ip < o.ip || ( ip == o.ip && vrf < o.vrf ); }
};
std::ostream & operator<<( std::ostream & os, const Peer & p );

} // namespace Bfd

template<>
struct std::hash< Bfd::Peer > {
   std::size_t operator()( const Bfd::Peer & p ) const noexcept {
      return std::hash< Lumo::IpGenAddr >()( p.ip ) * 31 + std::hash< L3::VrfName >()( p.vrf );
   }
};

namespace Bfd {

// Sessions one application wants, per VRF. A store entity, named after the
// application, so that the BFD service finds it in the application's
// directory ("bfd/config/app*/<app>/<vrf>/<app>").
#define BFD_APP_CONFIG_ATTRS( X ) \
   X( SET, peerConfig, PeerConfig, Peer )

class AppConfig : public Kiv::Entity {
 public:
   explicit AppConfig( const Kiv::Name & appName = Kiv::Name() );
   const char * typeName() const override { return "Bfd::AppConfig"; }
   const std::string & appName() const { return appName_; }
   KIV_ENTITY( AppConfig, "Bfd::AppConfig", BFD_APP_CONFIG_ATTRS )
 private:
   std::string appName_;
};
KIV_NOTIFIEE( AppConfig, BFD_APP_CONFIG_ATTRS )

#define BFD_PEER_STATUS_ATTRS( X ) \
   X( SCALAR, status, Status, OperState, operDown )

class BfdPeerStatus : public Kiv::Notifier {
 public:
   explicit BfdPeerStatus( const Peer & peer, OperState s = operDown ) : peer_( peer ) { status_ = s; }
   const Peer & peer() const { return peer_; }
   KIV_ENTITY( BfdPeerStatus, "Bfd::BfdPeerStatus", BFD_PEER_STATUS_ATTRS )
 private:
   Peer peer_;
};
KIV_NOTIFIEE( BfdPeerStatus, BFD_PEER_STATUS_ATTRS )

// Session states of one application's peers.
#define BFD_APP_STATUS_ATTRS( X ) \
   X( ENTITIES, peerStatus, PeerStatus, Peer, BfdPeerStatus )

class AppStatus : public Kiv::Notifier {
 public:
   explicit AppStatus( const std::string & appName ) : appName_( appName ) {}
   const std::string & appName() const { return appName_; }
   KIV_ENTITY( AppStatus, "Bfd::AppStatus", BFD_APP_STATUS_ATTRS )
 private:
   std::string appName_;
};
KIV_NOTIFIEE( AppStatus, BFD_APP_STATUS_ATTRS )

} // namespace Bfd
