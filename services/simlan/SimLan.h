#pragma once
// A simulated LAN for several routers in one process: segments join
// interfaces of router VRFs that share one activity manager and its clock
// (virtual in the lab and in tests).
//
// Each router VRF has one Endpoint on its PIM socket handle (PamManager). The
// endpoint takes every Hello the agent hands to the transmit mailbox inside
// the mailbox's count increment (the next send overwrites the mailbox),
// encodes it with the wire codec and puts the bytes on the segment of the
// sending interface. The segment hands a copy to every other attached
// interface after its delay, unless the copy is lost (per-segment loss drawn
// from the activity manager's random source, so a seed fixes it), the segment
// is cut or the receiving interface is detached. The receiving endpoint
// decodes the bytes and places the Hello in the VRF's receive mailbox for
// Hellos, one Hello per timer firing, so that the loop runs until idle
// between two Hellos: the agent's reaction to the mailbox is deferred and
// would otherwise see only the last of several Hellos.
#include <array>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kiv/Clock.h"
#include "kiv/Ptr.h"
#include "lumo/IntfId.h"
#include "lumo/IpGenAddr.h"
#include "services/pimwire/HelloCodec.h"
#include "services/pimio/MessageInfo.h"
#include "tolm/TimerWheel.h"
#include "kiv/OwnedReactor.h"
#include "tolm/OwnedTimer.h"

namespace SimLan {

using Bytes = std::vector< std::uint8_t >;

class Endpoint;
class Lan;

// What one endpoint saw. Drops are counted at the receiving endpoint.
struct EndpointCounters {
   std::uint64_t txFrames = 0;        // frames put on a segment
   std::uint64_t txNotAttached = 0;   // sends on an interface that is on no segment
   std::uint64_t txWhileDown = 0;     // sends swallowed while the endpoint is down
   std::uint64_t txEncodeFailed = 0;  // Hellos the codec refused (or non-Hello messages)
   std::uint64_t rxFrames = 0;        // Hellos placed in the receive mailbox
   std::uint64_t rxLost = 0;          // lost to the segment's loss rate
   std::uint64_t rxCut = 0;           // dropped because the segment was cut
   std::uint64_t rxDetached = 0;      // receiving interface detached or endpoint down
   std::uint64_t rxNoMailbox = 0;     // the VRF has no receive mailbox for Hellos
   std::array< std::uint64_t, PimWire::kRejectReasonCount > rxRejected{};  // by reason
   std::uint64_t rejected() const;
   std::uint64_t rejected( PimWire::RejectReason r ) const {
      return rxRejected[ static_cast< std::size_t >( r ) ];
   }
};

class Segment {
 public:
   static constexpr Kiv::Seconds kDefaultDelay = 0.001;

   Segment( std::string name, Kiv::Seconds delay );
   Segment( const Segment & ) = delete;
   Segment & operator=( const Segment & ) = delete;
   ~Segment();

   const std::string & name() const { return name_; }
   Kiv::Seconds delay() const { return delay_; }
   void delayIs( Kiv::Seconds d );
   // Probability in [0, 1] that one copy of a frame is lost.
   double loss() const { return loss_; }
   void lossIs( double p );
   // A cut segment carries nothing, frames already in flight included.
   bool cut() const { return cut_; }
   void cutIs( bool c ) { cut_ = c; }
   std::size_t attachedCount() const { return ports_.size(); }
   bool attached( const Endpoint & e, const Lumo::IntfId & intf ) const;
   std::uint64_t framesCarried() const { return framesCarried_; }

 private:
   friend class Endpoint;
   struct Port {
      Endpoint * endpoint;
      Lumo::IntfId intfId;
   };
   void portIs( Endpoint & e, const Lumo::IntfId & intf );
   void portDel( Endpoint & e, const Lumo::IntfId & intf );
   // Hands a copy of the frame to every port but the sender's.
   void carry( const Endpoint & from, const Lumo::IntfId & fromIntf, PimWire::Family family,
               const Lumo::IpGenAddr & src, const Lumo::IpGenAddr & dst,
               const std::shared_ptr< const Bytes > & bytes );

   std::string name_;
   Kiv::Seconds delay_;
   double loss_ = 0.0;
   bool cut_ = false;
   std::vector< Port > ports_;   // attach order: delivery order for equal times
   std::uint64_t framesCarried_ = 0;
};

// Owns the segments. Endpoints refer to it and must be destroyed first.
class Lan {
 public:
   Lan() = default;
   Lan( const Lan & ) = delete;
   Lan & operator=( const Lan & ) = delete;
   ~Lan();

   // Creates the segment, or returns the existing one unchanged.
   Segment & segmentIs( const std::string & name, Kiv::Seconds delay = Segment::kDefaultDelay );
   Segment * segment( const std::string & name ) const;
   std::vector< std::string > segmentNames() const;
   // Order of frames that are due at the same time.
   std::uint64_t nextSeq() { return ++seq_; }
   std::size_t endpointCount() const { return endpoints_; }

 private:
   friend class Endpoint;
   std::map< std::string, std::unique_ptr< Segment > > segments_;
   std::uint64_t seq_ = 0;
   std::size_t endpoints_ = 0;
};

class Endpoint {
 public:
   // pamManager and wheel are required (std::invalid_argument otherwise).
   Endpoint( Lan & lan, std::string name, const Kiv::Ptr< Routing::Pim::IO::PamManager > & pamManager,
             const Kiv::Ptr< Tolm::TimerWheel > & wheel );
   Endpoint( const Endpoint & ) = delete;
   Endpoint & operator=( const Endpoint & ) = delete;
   ~Endpoint();

   const std::string & name() const { return name_; }
   const Kiv::Ptr< Routing::Pim::IO::PamManager > & pamManager() const { return pamManager_; }

   // Puts the interface on the named segment (created with the default delay
   // when absent), leaving any segment it was on.
   void attach( const Lumo::IntfId & intf, const std::string & segment );
   void detach( const Lumo::IntfId & intf );
   Segment * segmentOf( const Lumo::IntfId & intf ) const;

   // A down endpoint neither sends nor receives: a router that stopped
   // without saying goodbye.
   bool up() const { return up_; }
   void upIs( bool up ) { up_ = up; }

   const EndpointCounters & counters() const { return counters_; }
   std::size_t pendingFrames() const { return queue_.size(); }

   // Puts raw bytes on the interface's segment as if the agent had sent them
   // (damaged and foreign frames in tests).
   void sendBytes( const Lumo::IntfId & intf, const Lumo::IpGenAddr & src, const Lumo::IpGenAddr & dst,
                   Bytes bytes );

 private:
   friend class Segment;
   class KivTxMessageInfo : public Kiv::OwnedReactor< Routing::Pim::IO::MessageInfo::NotifieeConst, Endpoint > {
    public:
      KivTxMessageInfo( Endpoint * owner, const Kiv::Ptr< Routing::Pim::IO::MessageInfo > & tx );
      // Each send overwrites the mailbox, so it is taken inside the increment.
      void onCountkivImmediate() override { owner_->handleTx(); }
   };
   struct Frame {
      Lumo::IntfId intfId;         // receiving interface
      const Segment * segment;
      PimWire::Family family;
      Lumo::IpGenAddr src;
      Lumo::IpGenAddr dst;
      std::shared_ptr< const Bytes > bytes;
   };
   using QueueKey = std::pair< Kiv::Seconds, std::uint64_t >;   // due time, arrival order

   void handleTx();
   void send( const Lumo::IntfId & intf, PimWire::Family family, const Lumo::IpGenAddr & src,
              const Lumo::IpGenAddr & dst, std::shared_ptr< const Bytes > bytes );
   // Called by a segment: one copy of a frame for one of this endpoint's interfaces.
   void frameIs( Kiv::Seconds due, Frame frame );
   void lostIs() { ++counters_.rxLost; }
   void handleDeliveryTimer();
   using KivDeliveryTimer = Tolm::OwnedTimer< Endpoint, &Endpoint::handleDeliveryTimer >;
   void deliver( const Frame & f );
   void armDeliveryTimer();

   Lan & lan_;
   std::string name_;
   Kiv::Ptr< Routing::Pim::IO::PamManager > pamManager_;
   Kiv::Ptr< Tolm::TimerWheel > wheel_;
   std::map< Lumo::IntfId, Segment * > ports_;
   std::map< QueueKey, Frame > queue_;
   EndpointCounters counters_;
   bool up_ = true;
   std::unique_ptr< KivTxMessageInfo > txReactor_;
   KivDeliveryTimer deliveryTimer_;
};

} // namespace SimLan
