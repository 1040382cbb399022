#pragma once
// Source-interface registry: agents that must originate traffic from the
// address of a named interface (e.g. a reliable-transport connection)
// register the interface and read the SourceIntf entry, whose ipAddr follows
// the interface's primary address in the VRF's IP status.
#include <cstdint>
#include <memory>

#include "kiv/Entity.h"
#include "kiv/EntityMacros.h"
#include "lumo/IntfId.h"
#include "lumo/IpGenAddr.h"
#include "services/ip/IpStatus.h"
#include "kiv/OwnedReactor.h"

namespace IpGen::SourceIntf {

// ipAddr: the interface's primary address while it is in the registry's VRF
// and has one; the empty address otherwise.
#define IPGEN_SOURCE_INTF_ATTRS( X ) \
   X( SCALAR, ipAddr, IpAddr, Lumo::IpGenAddr, {} )

class SourceIntf : public Kiv::Notifier {
 public:
   explicit SourceIntf( const Lumo::IntfId & intfId ) : intfId_( intfId ) {}
   const Lumo::IntfId & intfId() const { return intfId_; }
   KIV_ENTITY( SourceIntf, "IpGen::SourceIntf::SourceIntf", IPGEN_SOURCE_INTF_ATTRS )
 private:
   const Lumo::IntfId intfId_;
};
KIV_NOTIFIEE( SourceIntf, IPGEN_SOURCE_INTF_ATTRS )

#define IPGEN_SOURCE_INTF_DIR_ATTRS( X ) \
   X( ENTITIES, sourceIntf, SourceIntf, Lumo::IntfId, SourceIntf )

class SourceIntfDir : public Kiv::Entity {
 public:
   explicit SourceIntfDir( const Kiv::Name & name = Kiv::Name() );
   const char * typeName() const override;
   KIV_ENTITY( SourceIntfDir, "IpGen::SourceIntf::SourceIntfDir", IPGEN_SOURCE_INTF_DIR_ATTRS )
};
KIV_NOTIFIEE( SourceIntfDir, IPGEN_SOURCE_INTF_DIR_ATTRS )

// Keeps the entries of a SourceIntfDir in step with one VRF's IP interface
// status. Registrations are counted: an entry stays in the directory until
// every registration of its interface was given back.
class VrfSourceIntfSm : public Kiv::StateMachine {
 public:
   // Both are required ("null ValidPtr").
   VrfSourceIntfSm( const Kiv::Ptr< SourceIntfDir > & sourceIntfDir,
                    const Kiv::Ptr< const IpGen::IntfStatus > & intfStatus );
   ~VrfSourceIntfSm() override;

   const Kiv::Ptr< SourceIntfDir > & sourceIntfDir() const { return sourceIntfDir_; }
   const Kiv::Ptr< const IpGen::IntfStatus > & intfStatus() const { return intfStatus_; }

   // Creates the entry on the first registration (its ipAddr already set)
   // and returns it; an empty intfId is refused with Kiv::RangeException.
   Kiv::Ptr< SourceIntf > registerSourceIntf( const Lumo::IntfId & intfId );
   // Gives back one registration; the last one removes the entry. A pointer
   // that is null or not this registry's entry is ignored.
   void unregisterSourceIntf( const Kiv::Ptr< SourceIntf > & sourceIntf );
   std::uint32_t registrations( const Lumo::IntfId & intfId ) const;

   // Recomputes one entry's ipAddr from the IP status.
   void handleIntf( const Lumo::IntfId & intfId );

 private:
   // Watches the status for interfaces that appear, leave or change VRF.
   class KivIpStatus : public Kiv::OwnedReactor< IpGen::Status::NotifieeConst, VrfSourceIntfSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onIntfStatus( const Lumo::IntfId & intf ) override;
   };
   // Watches one registered interface's entry.
   class KivIpIntfStatus : public Kiv::KeyedReactor< IpGen::IpIntfStatus::NotifieeConst, VrfSourceIntfSm, Lumo::IntfId > {
    public:
      using KeyedReactor::KeyedReactor;
      void onVrf() override { owner_->handleIntf( key_ ); }
      void onActiveAddrWithMask() override { owner_->handleIntf( key_ ); }
   };
   struct Registration {
      std::uint32_t count = 0;
      std::unique_ptr< KivIpIntfStatus > reactor;
   };

   Kiv::Ptr< SourceIntfDir > sourceIntfDir_;
   Kiv::Ptr< const IpGen::IntfStatus > intfStatus_;
   KivIpStatus ipStatus_;
   Kiv::HashMap< Lumo::IntfId, Registration > registrations_;
};

} // namespace IpGen::SourceIntf
