#pragma once
// The attribute log: agents record changes of the attributes they publish as
// text lines into an output registered under the agent's name; the host (or
// a daemon streaming them out) reads the output. Outputs are bounded: the
// oldest lines go first.
#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

#include "kiv/HashMap.h"
#include "kiv/Ptr.h"

namespace Kiv::NboAttrLog {

class SocketOutSm : public Kiv::PtrInterface {
 public:
   SocketOutSm( const std::string & name, std::size_t capacity ) : name_( name ), capacity_( capacity ) {}
   const std::string & name() const { return name_; }
   void write( const std::string & line );
   const std::deque< std::string > & lines() const { return lines_; }
   std::uint64_t written() const { return written_; }
   std::uint64_t dropped() const { return written_ - lines_.size(); }

 private:
   const std::string name_;
   const std::size_t capacity_;
   std::deque< std::string > lines_;
   std::uint64_t written_ = 0;
};

class Root {
 public:
   static Root & top();
   Kiv::Ptr< SocketOutSm > outSm( const std::string & name ) const;
   Kiv::Ptr< SocketOutSm > outSmIs( const std::string & name, std::size_t capacity = 4096 );
   void outSmDel( const std::string & name );

 private:
   Kiv::HashMap< std::string, Kiv::Ptr< SocketOutSm > > outs_;
};

} // namespace Kiv::NboAttrLog
