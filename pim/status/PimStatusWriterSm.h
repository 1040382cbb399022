#pragma once
// StatusWriterSm: mirrors one VRF's PIM interfaces and neighbours into the
// VRF's shared-memory status tables, where other processes read them. It
// only reads the status entities and only writes the tables.
//
// Three levels of reactors follow the entity tree: KivAllStatus owns one
// KivIntf per interface, each KivIntf one KivNeighbor per neighbour. Each
// level remembers the child rows it wrote, so that removal deletes exactly
// those, children before their parent.
//
// The tables outlive the writer (a reader may hold them across a disable and
// enable of PIM in the VRF), so the writer takes its rows with it when it
// goes, and a new writer first drops every row the current status does not
// back.
#include <memory>

#include "kiv/EntityMacros.h"
#include "kiv/HashMap.h"
#include "kiv/OwnedReactor.h"
#include "kiv/ReactorMap.h"
#include "lumo/IntfId.h"
#include "lumo/IpGenAddr.h"
#include "lumo/IpGenPrefix.h"
#include "lumo/VrfName.h"
#include "model/PimStatus.h"
#include "status/PimVarnStatus.h"

namespace Routing::Pim::Varn {

class StatusWriterSm : public Kiv::StateMachine {
 public:
   class KivAllStatus;
   class KivIntf;

   // One neighbour's row and its secondary-address rows.
   class KivNeighbor : public Kiv::KeyedReactor< ::Routing::Pim::Neighbor::NotifieeConst, KivIntf, Lumo::IpGenAddr > {
    public:
      // Refuses a null neighbour with the framework's null-parameter error.
      KivNeighbor( KivIntf * owner, const Kiv::Ptr< const ::Routing::Pim::Neighbor > & neighbor );
      const Lumo::IpGenAddr & address() const { return key_; }

      void handleNew();
      void handleNeighbor();
      void handleSecondaryAddress( const Lumo::IpGenAddr & addr );
      void handleDel();

      void onCreationTime() override { handleNeighbor(); }
      void onLastRefreshTime() override { handleNeighbor(); }
      void onHoldTime() override { handleNeighbor(); }
      void onDrPriorityOption() override { handleNeighbor(); }
      void onGenerationIdOption() override { handleNeighbor(); }
      void onLanPruneDelayOption() override { handleNeighbor(); }
      void onSecondaryAddress( const Lumo::IpGenAddr & addr ) override {
         handleSecondaryAddress( addr );
      }
      void onBfdState() override { handleNeighbor(); }
      void onPortInfo() override { handleNeighbor(); }
      void onTransportProtocol() override { handleNeighbor(); }

    private:
      // Secondary addresses whose rows this reactor wrote.
      Kiv::HashMap< Lumo::IpGenAddr, bool > secondaryWritten_;
   };

   // One interface's row, its secondary address and prefix rows, its
   // inactive-neighbour rows and its neighbours.
   class KivIntf : public Kiv::KeyedReactor< ::Routing::Pim::Intf::NotifieeConst, KivAllStatus, Lumo::IntfId > {
    public:
      KivIntf( KivAllStatus * owner, const Kiv::Ptr< const ::Routing::Pim::Intf > & intf );
      const Lumo::IntfId & id() const { return key_; }
      StatusWriterSm * sm() const;

      void handleNew();
      void handleIntf();
      void handleSecondaryAddress( const Lumo::IpGenAddr & addr );
      void handleSecondaryPrefix( const Lumo::IpGenPrefix & prefix );
      void handleInactiveBfdNeighbor( const Lumo::IpGenAddr & addr );
      void handleRefusedSource( const Lumo::IpGenAddr & addr );
      void handleNeighbor( const Lumo::IpGenAddr & addr );
      // How a set member's row is named in the trace.
      struct MemberText {
         const char * fn;
         const char * noun;
         const char * to;     // "Adding ... <to> interface"
         const char * from;   // "Removing ... <from> interface"
      };
      template< class K, class Add, class Del >
      void mirrorTraced( const MemberText & text, bool present, Kiv::HashMap< K, bool > & written,
                         const K & member, Add && add, Del && del );
      void handleDel();

      void onEnabled() override { handleIntf(); }
      void onMode() override { handleIntf(); }
      void onAddressWithMask() override { handleIntf(); }
      void onUsedAddressWithMask() override { handleIntf(); }
      void onSecondaryAddress( const Lumo::IpGenAddr & a ) override { handleSecondaryAddress( a ); }
      void onSecondaryPrefix( const Lumo::IpGenPrefix & p ) override { handleSecondaryPrefix( p ); }
      void onHelloPeriod() override { handleIntf(); }
      void onHelloHoldTime() override { handleIntf(); }
      void onHelloDelay() override { handleIntf(); }
      void onDrPriority() override { handleIntf(); }
      void onGenerationId() override { handleIntf(); }
      void onJoinPrunePeriod() override { handleIntf(); }
      void onJoinPruneHoldTime() override { handleIntf(); }
      void onBfdEnabled() override { handleIntf(); }
      void onBorderRouter() override { handleIntf(); }
      void onFastFailover() override { handleIntf(); }
      void onSourceInject() override { handleIntf(); }
      void onPortCapabilityFlags() override { handleIntf(); }
      void onPortInterfaceId() override { handleIntf(); }
      void onNeighbor( const Lumo::IpGenAddr & a ) override { handleNeighbor( a ); }
      void onInactiveBfdNeighbor( const Lumo::IpGenAddr & a ) override {
         handleInactiveBfdNeighbor( a );
      }
      void onUsedDr() override { handleIntf(); }
      void onUsedDrPriority() override { handleIntf(); }
      void onUsedPropagationDelay() override { handleIntf(); }
      void onUsedOverrideInterval() override { handleIntf(); }
      void onUsedTBit() override { handleIntf(); }
      void onTriggeredHello() override { handleIntf(); }
      void onPropagationDelay() override { handleIntf(); }
      void onOverrideInterval() override { handleIntf(); }
      void onTBit() override { handleIntf(); }
      void onAssertTimeout() override { handleIntf(); }
      void onAssertOverrideInterval() override { handleIntf(); }
      void onTriggeredHelloCount() override { handleIntf(); }
      void onLastHelloTime() override { handleIntf(); }
      void onNeighborLimit() override { handleIntf(); }
      void onRefusedNeighborCount() override { handleIntf(); }
      void onRefusedSourceAddressCount() override { handleIntf(); }
      void onIgnoredSecondaryCount() override { handleIntf(); }
      void onRefusedSource( const Lumo::IpGenAddr & a ) override { handleRefusedSource( a ); }

    private:
      friend class KivNeighbor;
      Kiv::ReactorMap< Lumo::IpGenAddr, KivNeighbor > neighbor_;
      // Child rows this reactor wrote.
      Kiv::HashMap< Lumo::IpGenAddr, bool > secondaryAddressWritten_;
      Kiv::HashMap< Lumo::IpGenPrefix, bool > secondaryPrefixWritten_;
      Kiv::HashMap< Lumo::IpGenAddr, bool > inactiveWritten_;
      Kiv::HashMap< Lumo::IpGenAddr, bool > refusedWritten_;
   };

   // The VRF's AllStatus: one KivIntf per interface.
   class KivAllStatus : public Kiv::OwnedReactor< ::Routing::Pim::AllStatus::NotifieeConst, StatusWriterSm > {
    public:
      KivAllStatus( StatusWriterSm * owner, const Kiv::Ptr< const ::Routing::Pim::AllStatus > & s );
      ~KivAllStatus() override;
      StatusWriterSm * sm() const { return owner_; }
      void onPimIntf( const Lumo::IntfId & id ) override { handlePimIntf( id ); }
      void handlePimIntf( const Lumo::IntfId & id );
      // The reactor of an interface, or null.
      KivIntf * intf( const Lumo::IntfId & id ) const;
      std::size_t intfCount() const { return intf_.size(); }
      // Removes every interface's rows (the writer is going).
      void handleDelAll();
    private:
      Kiv::ReactorMap< Lumo::IntfId, KivIntf > intf_;
   };

   // allStatus and varnStatus are required ("null ValidPtr").
   StatusWriterSm( const L3::VrfName & vrfName,
                   const Kiv::Ptr< const ::Routing::Pim::AllStatus > & allStatus,
                   const Kiv::Ptr< Status > & varnStatus );
   ~StatusWriterSm() override;

   const L3::VrfName & vrfName() const { return vrfName_; }
   const Kiv::Ptr< Status > & varnStatus() const { return varnStatus_; }
   const KivAllStatus & allStatusReactor() const { return *allStatus_; }

 private:
   // Deletes the rows that no entry of allStatus backs, children first.
   void dropStaleRows( const ::Routing::Pim::AllStatus & allStatus );

   const L3::VrfName vrfName_;
   Kiv::Ptr< Status > varnStatus_;
   std::unique_ptr< KivAllStatus > allStatus_;
};

Kiv::Ptr< StatusWriterSm > StatusWriterSmIs( const L3::VrfName & vrfName,
                                             const Kiv::Ptr< const ::Routing::Pim::AllStatus > & allStatus,
                                             const Kiv::Ptr< Status > & varnStatus );

// Row builders, exposed for readers' tests.
Intf intfRow( const ::Routing::Pim::Intf & intf );
Neighbor neighborRow( const Lumo::IntfId & intf, const ::Routing::Pim::Neighbor & neighbor );

} // namespace Routing::Pim::Varn
