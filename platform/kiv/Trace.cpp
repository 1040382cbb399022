#include "kiv/Trace.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <mutex>

#include "kiv/Clock.h"

namespace Kiv {

namespace {

constexpr std::uint16_t kAllLevels = 0x3fe;  // bits 1..9

std::uint16_t rangeMask( int first, int last ) {
   first = std::max( first, kTraceMinLevel );
   last = std::min( last, kTraceMaxLevel );
   std::uint16_t m = 0;
   for( int l = first; l <= last; ++l ) m = static_cast< std::uint16_t >( m | ( 1u << l ) );
   return m;
}

std::string trim( const std::string & s ) {
   const auto b = s.find_first_not_of( " \t" );
   if( b == std::string::npos ) return {};
   const auto e = s.find_last_not_of( " \t" );
   return s.substr( b, e - b + 1 );
}

// A level number 0..9, nothing else.
bool parseLevel( const std::string & s, int & out ) {
   if( s.size() != 1 || s[ 0 ] < '0' || s[ 0 ] > '9' ) return false;
   out = s[ 0 ] - '0';
   return true;
}

bool validName( const std::string & p ) {
   if( p.empty() ) return true;
   return std::none_of( p.begin(), p.end(), []( char c ) {
      return c == '*' || c == '/' || c == ',' || c == ' ' || c == '\t';
   } );
}

// How specifically a rule matches a name: -1 no match, otherwise larger is
// more specific (exact matches rank above every wildcard).
long specificity( const TraceRule & r, const std::string & name ) {
   if( r.wildcard ) {
      if( name.compare( 0, r.pattern.size(), r.pattern ) != 0 ) return -1;
      return static_cast< long >( r.pattern.size() );
   }
   return name == r.pattern ? 1L << 30 : -1;
}

} // namespace

// ---- TraceSelection ---------------------------------------------------------------------
TraceSelection TraceSelection::parse( const std::string & text ) {
   TraceSelection selection;
   std::size_t pos = 0;
   while( pos <= text.size() ) {
      auto comma = text.find( ',', pos );
      if( comma == std::string::npos ) comma = text.size();
      const std::string item = trim( text.substr( pos, comma - pos ) );
      pos = comma + 1;
      if( item.empty() ) continue;  // tolerate "a,,b" and a trailing comma
      TraceRule rule;
      std::string pattern = item;
      std::string levels;
      const auto slash = item.find( '/' );
      if( slash != std::string::npos ) {
         pattern = trim( item.substr( 0, slash ) );
         levels = trim( item.substr( slash + 1 ) );
      }
      if( !pattern.empty() && pattern.back() == '*' ) {
         rule.wildcard = true;
         pattern.pop_back();
      }
      if( ( pattern.empty() && !rule.wildcard ) || !validName( pattern ) ) {
         selection.errors.push_back( "bad handle pattern in '" + item + "'" );
         continue;
      }
      rule.pattern = pattern;
      if( slash == std::string::npos ) {
         rule.mask = kAllLevels;
      } else {
         const auto dash = levels.find( '-' );
         int first = 0;
         int last = 0;
         bool ok;
         if( dash == std::string::npos ) {
            ok = parseLevel( levels, first );
            last = first;
         } else {
            ok = parseLevel( levels.substr( 0, dash ), first ) &&
                 parseLevel( levels.substr( dash + 1 ), last ) && first >= 1 && first <= last;
         }
         if( !ok ) {
            selection.errors.push_back( "bad levels in '" + item + "'" );
            continue;
         }
         rule.mask = first == 0 ? 0 : rangeMask( first, last );
      }
      selection.rules.push_back( std::move( rule ) );
   }
   return selection;
}

std::uint16_t TraceSelection::maskFor( const std::string & name ) const {
   long best = -1;
   std::uint16_t mask = 0;
   for( const auto & r : rules ) {
      const long s = specificity( r, name );
      if( s >= 0 && s >= best ) {
         best = s;
         mask = r.mask;
      }
   }
   return mask;
}

bool TraceSelection::matches( const std::string & name ) const {
   return std::any_of( rules.begin(), rules.end(),
                       [ & ]( const TraceRule & r ) { return specificity( r, name ) >= 0; } );
}

// ---- registry ----------------------------------------------------------------------
// Never destroyed: static handles of other translation units unregister from
// it during exit.
class TraceRegistry {
 public:
   static TraceRegistry & instance() {
      static TraceRegistry * r = new TraceRegistry;
      return *r;
   }

   void add( TraceHandle & h ) {
      std::lock_guard lock( mutex_ );
      if( !envRead_ ) readEnvironmentLocked();
      handles_.push_back( &h );
      h.userMask_ = initialMask( h.name_ );
      h.captureMask_ = captureMask( h.name_ );
      h.updateMask();
   }
   void remove( TraceHandle & h ) {
      std::lock_guard lock( mutex_ );
      handles_.erase( std::remove( handles_.begin(), handles_.end(), &h ), handles_.end() );
   }
   TraceHandle * find( const std::string & name ) {
      std::lock_guard lock( mutex_ );
      for( auto * h : handles_ ) {
         if( h->name_ == name ) return h;
      }
      return nullptr;
   }
   void setUser( TraceHandle & h, std::uint16_t mask ) {
      std::lock_guard lock( mutex_ );
      h.userMask_ = mask;
      h.updateMask();
   }
   std::uint16_t user( const TraceHandle & h ) {
      std::lock_guard lock( mutex_ );
      return h.userMask_;
   }
   void enableAll( std::uint16_t mask ) {
      std::lock_guard lock( mutex_ );
      allMask_ |= mask;
      for( auto * h : handles_ ) {
         h->userMask_ |= mask;
         h->updateMask();
      }
   }
   void disableAll() {
      std::lock_guard lock( mutex_ );
      envRead_ = true;  // an explicit reset also overrides the environment
      allMask_ = 0;
      selection_ = {};
      for( auto * h : handles_ ) {
         h->userMask_ = 0;
         h->updateMask();
      }
   }
   std::vector< std::string > config( const std::string & text ) {
      std::lock_guard lock( mutex_ );
      envRead_ = true;
      return applyLocked( text );
   }
   std::vector< std::string > configFromEnvironment() {
      std::lock_guard lock( mutex_ );
      return readEnvironmentLocked();
   }

   void addCapture( TraceCapture & c ) {
      std::lock_guard lock( mutex_ );
      captures_.push_back( &c );
   }
   void removeCapture( TraceCapture & c ) {
      std::lock_guard lock( mutex_ );
      captures_.erase( std::remove( captures_.begin(), captures_.end(), &c ), captures_.end() );
      refreshCaptureMasksLocked();
   }
   std::vector< std::string > captureEnable( TraceCapture & c, const std::string & text ) {
      TraceSelection more = TraceSelection::parse( text );
      std::lock_guard lock( mutex_ );
      for( auto & r : more.rules ) c.selection_.rules.push_back( std::move( r ) );
      refreshCaptureMasksLocked();
      return more.errors;
   }

   void emit( TraceLine && line, std::uint16_t levelBit, const TraceHandle & h ) {
      std::lock_guard lock( mutex_ );
      if( h.userMask_ & levelBit ) {
         const std::string out = line.format() + "\n";
         std::fwrite( out.data(), 1, out.size(), stderr );
      }
      for( auto * c : captures_ ) c->lines_.push_back( line );
   }

 private:
   std::uint16_t initialMask( const std::string & name ) const {
      return static_cast< std::uint16_t >( selection_.maskFor( name ) | allMask_ );
   }
   std::uint16_t captureMask( const std::string & name ) const {
      std::uint16_t m = 0;
      for( const auto * c : captures_ ) m = static_cast< std::uint16_t >( m | c->selection_.maskFor( name ) );
      return m;
   }
   void refreshCaptureMasksLocked() {
      for( auto * h : handles_ ) {
         h->captureMask_ = captureMask( h->name_ );
         h->updateMask();
      }
   }
   std::vector< std::string > readEnvironmentLocked() {
      envRead_ = true;
      const char * env = std::getenv( "KIV_TRACE" );
      auto errors = applyLocked( env ? env : "" );
      for( const auto & e : errors ) std::fprintf( stderr, "KIV_TRACE: %s (ignored)\n", e.c_str() );
      return errors;
   }
   std::vector< std::string > applyLocked( const std::string & text ) {
      selection_ = TraceSelection::parse( text );
      for( auto * h : handles_ ) {
         h->userMask_ = initialMask( h->name_ );
         h->updateMask();
      }
      return selection_.errors;
   }

   std::mutex mutex_;
   bool envRead_ = false;
   TraceSelection selection_;
   std::uint16_t allMask_ = 0;
   std::vector< TraceHandle * > handles_;
   std::vector< TraceCapture * > captures_;
};

// ---- TraceHandle -------------------------------------------------------------------
TraceHandle::TraceHandle( std::string name ) : name_( std::move( name ) ) {
   TraceRegistry::instance().add( *this );
}

TraceHandle::~TraceHandle() { TraceRegistry::instance().remove( *this ); }

void TraceHandle::updateMask() {
   mask_.store( static_cast< std::uint16_t >( userMask_ | captureMask_ ), std::memory_order_relaxed );
}

bool TraceHandle::levelEnabled( int level ) const {
   if( level < kTraceMinLevel || level > kTraceMaxLevel ) return false;
   return ( TraceRegistry::instance().user( *this ) >> level ) & 1u;
}

void TraceHandle::levelEnabledIs( int level, bool on ) { levelsEnabledIs( level, level, on ); }

void TraceHandle::levelsEnabledIs( int first, int last, bool on ) {
   auto & reg = TraceRegistry::instance();
   const std::uint16_t bits = rangeMask( first, last );
   const std::uint16_t cur = reg.user( *this );
   reg.setUser( *this, static_cast< std::uint16_t >( on ? ( cur | bits ) : ( cur & ~bits ) ) );
}

void TraceHandle::enableAll( int first, int last ) {
   TraceRegistry::instance().enableAll( rangeMask( first, last ) );
}

void TraceHandle::disableAll() { TraceRegistry::instance().disableAll(); }

std::vector< std::string > TraceHandle::configIs( const std::string & selection ) {
   return TraceRegistry::instance().config( selection );
}

std::vector< std::string > TraceHandle::configFromEnvironment() {
   return TraceRegistry::instance().configFromEnvironment();
}

TraceHandle * TraceHandle::handle( const std::string & name ) {
   return TraceRegistry::instance().find( name );
}

// ---- TraceLine ---------------------------------------------------------------------
std::string TraceLine::format() const {
   char t[ 32 ];
   std::snprintf( t, sizeof t, "%.6f", time );
   std::string out( t );
   out += ' ';
   out += handle;
   out += '/';
   out += static_cast< char >( '0' + ( level % 10 ) );
   out += ": ";
   out += text;
   return out;
}

// ---- TraceCapture ------------------------------------------------------------------
TraceCapture::TraceCapture() { TraceRegistry::instance().addCapture( *this ); }

TraceCapture::~TraceCapture() { TraceRegistry::instance().removeCapture( *this ); }

std::vector< std::string > TraceCapture::enable( const std::string & selection ) {
   return TraceRegistry::instance().captureEnable( *this, selection );
}

bool TraceCapture::contains( const std::string & handle, int level, const std::string & text ) const {
   return std::any_of( lines_.begin(), lines_.end(), [ & ]( const TraceLine & l ) {
      return l.handle == handle && l.level == level && l.text.find( text ) != std::string::npos;
   } );
}

std::size_t TraceCapture::count( const std::string & handle, int level ) const {
   return static_cast< std::size_t >(
         std::count_if( lines_.begin(), lines_.end(), [ & ]( const TraceLine & l ) {
            return l.handle == handle && ( level == 0 || l.level == level );
         } ) );
}

// ---- TraceHelper -------------------------------------------------------------------
TraceHelper::TraceHelper( TraceHandle & handle, int level, const char * file, int line,
                          const char * function )
      : handle_( &handle ), level_( level ), file_( file ), line_( line ), function_( function ) {}

TraceHelper::TraceHelper( TraceHelper && other ) noexcept
      : handle_( other.handle_ ),
        level_( other.level_ ),
        file_( other.file_ ),
        line_( other.line_ ),
        function_( other.function_ ),
        live_( other.live_ ),
        stream_( std::move( other.stream_ ) ) {
   other.live_ = false;
}

TraceHelper::~TraceHelper() {
   if( !live_ ) return;
   try {
      TraceLine l;
      l.time = System::currentTime();
      l.file = file_ ? file_ : "";
      l.line = line_;
      l.function = function_ ? function_ : "";
      l.handle = handle_->name();
      l.level = level_;
      l.text = stream_.str();
      const auto bit = static_cast< std::uint16_t >( 1u << ( level_ & 15 ) );
      TraceRegistry::instance().emit( std::move( l ), bit, *handle_ );
   } catch( ... ) {
      // Tracing must never take the agent down.
   }
}

std::optional< TraceHelper > TraceHelper::createIfEnabled( TraceHandle & handle, int level,
                                                           const char * file, int line,
                                                           const char * function ) {
   if( !handle.enabled( level ) ) return std::nullopt;
   return std::optional< TraceHelper >( std::in_place, handle, level, file, line, function );
}

} // namespace Kiv
