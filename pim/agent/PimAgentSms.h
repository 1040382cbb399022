#pragma once
// The machines the agent builds on the active side next to ConfigSm.
//  * PimAttrLogSm: records every change of the PIM global status (which VRFs
//    run PIM in which mode) as "<attribute>[<vrf>]=<value>" lines into the
//    agent's attribute-log output.
//  * Varn::GlobalStatusReaderSm: keeps a reader attachment to the
//    shared-memory status table of every VRF that runs PIM, so the process
//    can read back what it published (rows by VRF) as other readers see it.
//  * GlobalStatusModeFilterSm: derives the per-VRF PIM status
//    (Status.pimIntf) from the per-VRF interface status for a PIM mode: every
//    PIM interface whose effective mode shares a bit with the filter's mode
//    is published with that effective mode (the I/O machine publishes the
//    configured interfaces; application-requested ones come from here).
#include <memory>
#include <string>
#include <unordered_set>

#include "agenthost/AttrLog.h"
#include "kiv/Clock.h"
#include "kiv/ReactorMap.h"
#include "lumo/AddressFamily.h"
#include "model/PimStatus.h"
#include "status/PimVarnStatus.h"
#include "varn/VarnMount.h"
#include "kiv/OwnedReactor.h"

namespace Routing::Pim {

class PimAttrLogSm : public Kiv::StateMachine {
 public:
   explicit PimAttrLogSm( const Kiv::Ptr< Kiv::NboAttrLog::SocketOutSm > & out );
   ~PimAttrLogSm() override;
   const Kiv::Ptr< Kiv::NboAttrLog::SocketOutSm > & out() const { return out_; }
   // The status whose changes are logged (null stops logging).
   void globalStatusIs( const Kiv::Ptr< const GlobalStatus > & status );
   void handleEnabled( const char * attr, const L3::VrfName & vrf, bool on );

 private:
   class KivGlobalStatus : public Kiv::OwnedReactor< GlobalStatus::NotifieeConst, PimAttrLogSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onPimEnabledSparseModeVrf( const L3::VrfName & v ) override;
      void onPimEnabledBidirVrf( const L3::VrfName & v ) override;
   };
   Kiv::Ptr< Kiv::NboAttrLog::SocketOutSm > out_;
   KivGlobalStatus globalStatus_;
};

namespace Varn {

class GlobalStatusReaderSm : public Kiv::StateMachine {
 public:
   // followAllVrfs false reads the default VRF only.
   GlobalStatusReaderSm( Lumo::AddressFamily af, const Kiv::Ptr< const GlobalStatus > & globalStatus,
                         const Kiv::Ptr< const AllStatusColl > & allStatusColl, bool followAllVrfs,
                         const Kiv::Clock & clock, const Kiv::Ptr< KivVarn::Mount > & writerMount );
   ~GlobalStatusReaderSm() override;
   // The VRF's status table as a reader sees it, or null.
   Kiv::Ptr< const Status > statusTable( const L3::VrfName & vrf ) const;
   // When the reader last attached to or released a table.
   Kiv::Seconds lastChange() const { return lastChange_; }
   void handleVrf( const L3::VrfName & vrf );

 private:
   class KivGlobalStatus : public Kiv::OwnedReactor< GlobalStatus::NotifieeConst, GlobalStatusReaderSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onPimEnabledSparseModeVrf( const L3::VrfName & v ) override { owner_->handleVrf( v ); }
      void onPimEnabledBidirVrf( const L3::VrfName & v ) override { owner_->handleVrf( v ); }
   };
   class KivAllStatusColl : public Kiv::OwnedReactor< AllStatusColl::NotifieeConst, GlobalStatusReaderSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onVrfStatus( const L3::VrfName & v ) override { owner_->handleVrf( v ); }
   };
   const Lumo::AddressFamily af_;
   const bool followAllVrfs_;
   const Kiv::Clock & clock_;
   Kiv::Ptr< const GlobalStatus > globalStatus_;
   Kiv::Ptr< KivVarn::Mount > readerMount_;
   Kiv::HashMap< L3::VrfName, Kiv::Ptr< const Status > > tables_;
   Kiv::Seconds lastChange_ = 0.0;
   KivGlobalStatus globalStatusReactor_;
   KivAllStatusColl allStatusReactor_;
};

} // namespace Varn

class GlobalStatusModeFilterSm : public Kiv::StateMachine {
 public:
   GlobalStatusModeFilterSm( const Kiv::Ptr< const AllStatusColl > & allStatusColl,
                             const Kiv::Ptr< StatusColl > & statusColl, Mode mode );
   ~GlobalStatusModeFilterSm() override;
   Mode mode() const { return mode_; }
   void handleVrf( const L3::VrfName & vrf );
   void handleIntf( const L3::VrfName & vrf, const Lumo::IntfId & intf );

 private:
   class KivAllStatusColl : public Kiv::OwnedReactor< AllStatusColl::NotifieeConst, GlobalStatusModeFilterSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onVrfStatus( const L3::VrfName & v ) override { owner_->handleVrf( v ); }
   };
   class KivStatusColl : public Kiv::OwnedReactor< StatusColl::NotifieeConst, GlobalStatusModeFilterSm > {
    public:
      using OwnedReactor::OwnedReactor;
      void onVrfStatus( const L3::VrfName & v ) override { owner_->handleVrf( v ); }
   };
   class KivAllStatus : public Kiv::KeyedReactor< AllStatus::NotifieeConst, GlobalStatusModeFilterSm, L3::VrfName > {
    public:
      using KeyedReactor::KeyedReactor;
      void onPimIntf( const Lumo::IntfId & i ) override { owner_->handleIntf( key_, i ); }
   };
   class KivIntf : public Kiv::KeyedReactor< Intf::NotifieeConst, GlobalStatusModeFilterSm, Lumo::IntfId > {
    public:
      KivIntf( GlobalStatusModeFilterSm * o, const L3::VrfName & v, const Lumo::IntfId & i )
            : KeyedReactor( o, i ), vrf_( v ) {}
      void onMode() override { owner_->handleIntf( vrf_, key_ ); }
    private:
      L3::VrfName vrf_;
   };
   struct VrfIntf {
      L3::VrfName vrf;
      Lumo::IntfId intf;
      bool operator==( const VrfIntf & ) const = default;
   };
   struct VrfIntfHash {
      std::size_t operator()( const VrfIntf & k ) const noexcept {
         return k.vrf.hash() * 0x9E3779B97F4A7C15ull + k.intf.hash();
      }
   };
   Kiv::Ptr< const AllStatusColl > allStatusColl_;
   Kiv::Ptr< StatusColl > statusColl_;
   const Mode mode_;
   KivAllStatusColl allStatusCollReactor_;
   KivStatusColl statusCollReactor_;
   Kiv::ReactorMap< L3::VrfName, KivAllStatus > allStatus_;
   Kiv::ReactorMap< VrfIntf, KivIntf, VrfIntfHash > intfs_;
   // What this machine wrote, so that it removes only its own entries.
   std::unordered_set< VrfIntf, VrfIntfHash > published_;
};

} // namespace Routing::Pim
