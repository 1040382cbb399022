#pragma once
// Access-list configuration as the agent sees it, and the machines over it.
//
// Inputs: the CLI's lists ("acl/config/cli", Acl::Input::Config) and a
// directory of further sources ("acl/config/input", one Acl::Input::Config
// per source); likewise the control-plane ACL bindings ("acl/cpconfig/cli",
// "acl/cpconfig/input", Acl::Input::CpConfig), which name the list that
// guards a service in a VRF.
// AclConfigAggregatorSm and AclCpConfigAggregatorSm merge each input family
// into one output (Acl::Config, Acl::CpConfig): the CLI wins, then the
// directory's sources in name order; the first source that defines a key
// gives its value.
// ServiceAclFilterSm applies the list bound to one service in each VRF to the
// sources of received messages: a VRF without a binding, or bound to a list
// that does not exist, permits everything; otherwise the list decides and
// every drop is counted in Acl::StatusService.
#include <cstdint>
#include <string>

#include "kiv/Entity.h"
#include "kiv/EntityMacros.h"
#include "kiv/ReactorMap.h"
#include "kiv/String.h"
#include "lumo/VrfName.h"
#include "services/acl/StandardAcl.h"
#include "services/pimio/RxFilter.h"
#include "kiv/OwnedReactor.h"

namespace Acl {

// The key of a service binding: "<service>/<vrf>".
Kiv::String serviceVrfKey( const std::string & service, const L3::VrfName & vrf );

#define ACL_LISTS_ATTRS( X ) X( COLL, standardAcl, StandardAcl, Kiv::String, StandardAcl )
#define ACL_BINDINGS_ATTRS( X ) X( COLL, serviceAcl, ServiceAcl, Kiv::String, Kiv::String )

namespace Input {

class Config : public Kiv::Entity {
 public:
   explicit Config( const Kiv::Name & name = Kiv::Name() ) : Kiv::Entity( name ) {}
   const char * typeName() const override { return "Acl::Input::Config"; }
   KIV_ENTITY( Config, "Acl::Input::Config", ACL_LISTS_ATTRS )
};
KIV_NOTIFIEE( Config, ACL_LISTS_ATTRS )

class CpConfig : public Kiv::Entity {
 public:
   explicit CpConfig( const Kiv::Name & name = Kiv::Name() ) : Kiv::Entity( name ) {}
   const char * typeName() const override { return "Acl::Input::CpConfig"; }
   KIV_ENTITY( CpConfig, "Acl::Input::CpConfig", ACL_BINDINGS_ATTRS )
};
KIV_NOTIFIEE( CpConfig, ACL_BINDINGS_ATTRS )

} // namespace Input

class Config : public Kiv::Entity {
 public:
   explicit Config( const Kiv::Name & name = Kiv::Name() ) : Kiv::Entity( name ) {}
   const char * typeName() const override { return "Acl::Config"; }
   KIV_ENTITY( Config, "Acl::Config", ACL_LISTS_ATTRS )
};
KIV_NOTIFIEE( Config, ACL_LISTS_ATTRS )

class CpConfig : public Kiv::Entity {
 public:
   explicit CpConfig( const Kiv::Name & name = Kiv::Name() ) : Kiv::Entity( name ) {}
   const char * typeName() const override { return "Acl::CpConfig"; }
   KIV_ENTITY( CpConfig, "Acl::CpConfig", ACL_BINDINGS_ATTRS )
};
KIV_NOTIFIEE( CpConfig, ACL_BINDINGS_ATTRS )

// The filter's state per VRF: the list in force and the messages dropped.
#define ACL_STATUS_SERVICE_ATTRS( X )                                 \
   X( COLL, aclName, AclName, L3::VrfName, Kiv::String )              \
   X( COLL, dropped, Dropped, L3::VrfName, std::uint64_t )

class StatusService : public Kiv::Entity {
 public:
   explicit StatusService( const Kiv::Name & name = Kiv::Name() ) : Kiv::Entity( name ) {}
   const char * typeName() const override { return "Acl::StatusService"; }
   KIV_ENTITY( StatusService, "Acl::StatusService", ACL_STATUS_SERVICE_ATTRS )
};
KIV_NOTIFIEE( StatusService, ACL_STATUS_SERVICE_ATTRS )

// Merges a CLI input and a directory of inputs of type In into Out (both
// families have one keyed collection). One template for both.
class InputReactorBase {
 public:
   virtual ~InputReactorBase() = default;
};

template< class In, class Out >
class AggregatorSm : public Kiv::StateMachine {
 public:
   AggregatorSm( const Kiv::Ptr< const Kiv::Dir > & inputDir, const Kiv::Ptr< const In > & cli,
                 const Kiv::Ptr< Out > & out );
   ~AggregatorSm() override;
   const Kiv::Ptr< Out > & out() const { return out_; }
   // Recomputes one key from every input.
   void handleKey( const Kiv::String & key );
   // An input of the directory appeared, changed or went.
   void handleInput( const Kiv::Name & name );

 private:
   class KivDir : public Kiv::OwnedReactor< Kiv::Dir::NotifieeConst, AggregatorSm > {
    public:
      using Kiv::OwnedReactor< Kiv::Dir::NotifieeConst, AggregatorSm >::OwnedReactor;
      void onEntityPtr( const Kiv::Name & n ) override { this->owner_->handleInput( n ); }
   };
   std::unique_ptr< InputReactorBase > reactorFor( const Kiv::Ptr< const In > & in );
   Kiv::Ptr< const Kiv::Dir > inputDir_;
   Kiv::Ptr< const In > cli_;
   Kiv::Ptr< Out > out_;
   KivDir dir_;
   std::unique_ptr< InputReactorBase > cliReactor_;
   Kiv::ReactorMap< Kiv::Name, InputReactorBase > inputs_;
   Kiv::HashMap< Kiv::Name, Kiv::Ptr< const In > > inputEntity_;
};

using AclConfigAggregatorSm = AggregatorSm< Input::Config, Config >;
using AclCpConfigAggregatorSm = AggregatorSm< Input::CpConfig, CpConfig >;

class ServiceAclFilterSm : public Kiv::StateMachine, public Routing::Pim::IO::RxFilter {
 public:
   // service: the service whose bindings apply ("pim"). Any input may be
   // null: without lists or bindings everything is permitted.
   ServiceAclFilterSm( const std::string & service, const Kiv::Ptr< const Config > & aclConfig,
                       const Kiv::Ptr< const CpConfig > & serviceMap,
                       const Kiv::Ptr< StatusService > & statusService );
   ~ServiceAclFilterSm() override;
   const std::string & service() const { return service_; }

   bool permitReceived( const L3::VrfName & vrf, const Lumo::IntfId & intf,
                        const Lumo::IpGenAddr & src ) override;
   // Keeps statusService.aclName in line with the bindings of the service.
   void handleBinding( const Kiv::String & key );

 private:
   class KivServiceMap : public Kiv::OwnedReactor< CpConfig::NotifieeConst, ServiceAclFilterSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onServiceAcl( const Kiv::String & k ) override { owner_->handleBinding( k ); }
   };
   const std::string service_;
   Kiv::Ptr< const Config > aclConfig_;
   Kiv::Ptr< const CpConfig > serviceMap_;
   Kiv::Ptr< StatusService > statusService_;
   KivServiceMap serviceMapReactor_;
};

} // namespace Acl
