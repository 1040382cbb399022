#include "kiv/Log.h"

#include <syslog.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <mutex>

#include "kiv/Clock.h"

namespace Kiv {

namespace {

struct LogState {
   std::mutex mutex;
   LogOutput output = LogOutput::Stderr;
   std::vector< LogCapture * > captures;
};

// Never destroyed: static handles may log during exit.
LogState & state() {
   static LogState * s = new LogState;
   return *s;
}

bool isFlag( char c ) { return c == '-' || c == '+' || c == ' ' || c == '#' || c == '0'; }

// One conversion, formatted with snprintf, or "<?>" when the argument does
// not fit it. conversion holds flags, width and precision, without length modifier.
void formatOne( std::string & out, std::string conversion, char conv, const LogArg * arg ) {
   char buf[ 512 ];
   int n = -1;
   const auto k = arg ? arg->kind : LogArg::Kind::Pointer;
   const bool integral = arg && ( k == LogArg::Kind::Signed || k == LogArg::Kind::Unsigned );
   const long long asSigned = !arg ? 0 : k == LogArg::Kind::Signed ? arg->i
                                                                   : static_cast< long long >( arg->u );
   const unsigned long long asUnsigned =
         !arg ? 0 : k == LogArg::Kind::Unsigned ? arg->u : static_cast< unsigned long long >( arg->i );
   switch( conv ) {
    case 'd':
    case 'i':
      if( integral ) n = std::snprintf( buf, sizeof buf, ( conversion + "lld" ).c_str(), asSigned );
      break;
    case 'u':
    case 'x':
    case 'X':
    case 'o':
      if( integral ) {
         n = std::snprintf( buf, sizeof buf, ( conversion + "ll" + conv ).c_str(), asUnsigned );
      }
      break;
    case 'c':
      if( integral ) n = std::snprintf( buf, sizeof buf, ( conversion + "c" ).c_str(), static_cast< int >( asSigned ) );
      break;
    case 'f':
    case 'F':
    case 'e':
    case 'E':
    case 'g':
    case 'G':
    case 'a':
    case 'A': {
      double v = 0.0;
      bool ok = true;
      if( arg && k == LogArg::Kind::Double ) v = arg->d;
      else if( arg && k == LogArg::Kind::Signed ) v = static_cast< double >( arg->i );
      else if( arg && k == LogArg::Kind::Unsigned ) v = static_cast< double >( arg->u );
      else ok = false;
      if( ok ) n = std::snprintf( buf, sizeof buf, ( conversion + conv ).c_str(), v );
      break;
    }
    case 's':
      if( arg && k == LogArg::Kind::String ) {
         const char * s = arg->s ? arg->s : "(null)";
         if( conversion == "%" ) {
            out += s;  // the common case, and no length limit
            return;
         }
         n = std::snprintf( buf, sizeof buf, ( conversion + "s" ).c_str(), s );
      }
      break;
    case 'p':
      if( arg && k == LogArg::Kind::Pointer ) n = std::snprintf( buf, sizeof buf, ( conversion + "p" ).c_str(), arg->p );
      break;
    default:
      break;
   }
   if( n < 0 ) {
      out += "<?>";
      return;
   }
   out.append( buf, std::min( static_cast< std::size_t >( n ), sizeof buf - 1 ) );
}

} // namespace

const char * logSeverityName( int severity ) {
   static const char * const names[] = { "emergency", "alert",  "critical", "error",
                                         "warning",   "notice", "info",     "debug" };
   if( severity < 0 || severity > 7 ) return "unknown";
   return names[ severity ];
}

std::string logFormat( const char * format, const LogArg * args, std::size_t count ) {
   std::string out;
   if( !format ) return out;
   std::size_t next = 0;
   const char * p = format;
   while( *p ) {
      if( *p != '%' ) {
         const char * q = std::strchr( p, '%' );
         const std::size_t len = q ? static_cast< std::size_t >( q - p ) : std::strlen( p );
         out.append( p, len );
         p += len;
         continue;
      }
      ++p;
      if( *p == '%' ) {
         out += '%';
         ++p;
         continue;
      }
      std::string conversion = "%";
      while( isFlag( *p ) ) conversion += *p++;
      // '*' widths would take an argument of their own; not supported.
      while( *p >= '0' && *p <= '9' ) conversion += *p++;
      if( *p == '.' ) {
         conversion += *p++;
         while( *p >= '0' && *p <= '9' ) conversion += *p++;
      }
      // Length modifiers are dropped: the argument's own type decides.
      while( *p == 'h' || *p == 'l' || *p == 'L' || *p == 'q' || *p == 'j' || *p == 'z' ||
             *p == 't' ) {
         ++p;
      }
      if( !*p ) {
         out += "<?>";
         break;
      }
      const char conv = *p++;
      const LogArg * arg = next < count ? &args[ next ] : nullptr;
      ++next;
      formatOne( out, conversion, conv, arg );
   }
   return out;
}

// ---- LogHandle ---------------------------------------------------------------------
LogHandle::LogHandle( const char * name, int severity, const char * format, const char * explanation,
                      const char * recommendedAction, double minInterval, double rate,
                      unsigned flags )
      : name_( name ? name : "" ),
        severity_( severity ),
        format_( format ? format : "" ),
        explanation_( explanation ? explanation : "" ),
        recommendedAction_( recommendedAction ? recommendedAction : NoActionRequired ),
        minInterval_( minInterval ),
        rate_( rate ),
        flags_( flags ),
        tokens_( std::max( 1.0, rate ) ) {}

bool LogHandle::allowed( double now ) const {
   if( flags_ & LogFlagNoRateLimit ) return true;
   if( minInterval_ > 0.0 && everEmitted_ && now < lastEmitted_ + minInterval_ ) return false;
   if( rate_ > 0.0 && tokensInit_ ) {
      const double cap = std::max( 1.0, rate_ );
      const double tokens = std::min( cap, tokens_ + ( now - tokensAt_ ) * rate_ );
      if( tokens < 1.0 ) return false;
   }
   return true;
}

bool LogHandle::okToLog() const {
   const double now = System::currentTime();
   std::lock_guard lock( state().mutex );
   return allowed( now );
}

void LogHandle::logArgs( const LogArg * args, std::size_t count ) {
   const double now = System::currentTime();
   auto & st = state();
   std::unique_lock lock( st.mutex );
   if( !allowed( now ) ) {
      ++pendingSuppressed_;
      ++suppressedTotal_;
      return;
   }
   if( rate_ > 0.0 ) {
      const double cap = std::max( 1.0, rate_ );
      if( tokensInit_ ) tokens_ = std::min( cap, tokens_ + ( now - tokensAt_ ) * rate_ );
      tokensInit_ = true;
      tokensAt_ = now;
      tokens_ -= 1.0;
   }
   everEmitted_ = true;
   lastEmitted_ = now;
   ++emitted_;
   const std::uint64_t suppressed = pendingSuppressed_;
   pendingSuppressed_ = 0;
   lock.unlock();

   std::string text = logFormat( format_, args, count );
   if( suppressed ) {
      text += " (" + std::to_string( suppressed ) + " similar message" +
              ( suppressed == 1 ? "" : "s" ) + " suppressed)";
   }

   lock.lock();
   if( !st.captures.empty() ) {
      for( auto * c : st.captures ) c->messages_.push_back( { name_, severity_, text } );
      return;
   }
   switch( st.output ) {
    case LogOutput::Stderr: {
      char t[ 32 ];
      std::snprintf( t, sizeof t, "%.6f", now );
      const std::string line =
            std::string( t ) + " " + logSeverityName( severity_ ) + " %" + name_ + ": " + text + "\n";
      std::fwrite( line.data(), 1, line.size(), stderr );
      break;
    }
    case LogOutput::Syslog:
      syslog( std::clamp( severity_, 0, 7 ) | LOG_DAEMON, "%%%s: %s", name_, text.c_str() );
      break;
    case LogOutput::None:
      break;
   }
}

void LogHandle::outputIs( LogOutput output ) {
   std::lock_guard lock( state().mutex );
   state().output = output;
}

LogOutput LogHandle::output() {
   std::lock_guard lock( state().mutex );
   return state().output;
}

// ---- LogCapture --------------------------------------------------------------------
LogCapture::LogCapture() {
   std::lock_guard lock( state().mutex );
   state().captures.push_back( this );
}

LogCapture::~LogCapture() {
   std::lock_guard lock( state().mutex );
   auto & c = state().captures;
   c.erase( std::remove( c.begin(), c.end(), this ), c.end() );
}

std::size_t LogCapture::count( std::string_view name ) const {
   return static_cast< std::size_t >( std::count_if(
         messages_.begin(), messages_.end(), [ & ]( const LoggedMessage & m ) { return m.name == name; } ) );
}

bool LogCapture::contains( std::string_view name, std::string_view text ) const {
   return std::any_of( messages_.begin(), messages_.end(), [ & ]( const LoggedMessage & m ) {
      return m.name == name && m.text.find( text ) != std::string::npos;
   } );
}

} // namespace Kiv
