#include "agenthost/AttrLog.h"

namespace Kiv::NboAttrLog {

void SocketOutSm::write( const std::string & line ) {
   ++written_;
   if( capacity_ == 0 ) return;
   if( lines_.size() == capacity_ ) lines_.pop_front();
   lines_.push_back( line );
}

Root & Root::top() {
   static Root root;
   return root;
}

Kiv::Ptr< SocketOutSm > Root::outSm( const std::string & name ) const {
   const Kiv::Ptr< SocketOutSm > * p = outs_.find( name );
   return p ? *p : nullptr;
}

Kiv::Ptr< SocketOutSm > Root::outSmIs( const std::string & name, std::size_t capacity ) {
   if( auto existing = outSm( name ) ) return existing;
   auto out = Kiv::make< SocketOutSm >( name, capacity );
   outs_.insertOrAssignFn( name, out );
   return out;
}

void Root::outSmDel( const std::string & name ) { outs_.erase( name ); }

} // namespace Kiv::NboAttrLog
