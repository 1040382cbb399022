#pragma once
// Structured logs: one static LogHandle per message, declared once with its
// text and documentation, e.g.
//
//    static Kiv::LogHandle PIM_NBRCHG( "PIM_NBRCHG", Kiv::LogNotice,
//          "neighbor %s %s on interface %s",
//          "The PIM neighbor state changed on the interface.",
//          Kiv::NoActionRequired, 0.0, 1.0, 0 );
//    PIM_NBRCHG.log( addr.c_str(), "up", intf.c_str() );
//
// Formatting: the format is printf's. Because the format lives in the handle
// and not at the call site, the compiler cannot check it against the
// arguments; log() is a template that checks each argument against its
// conversion at run time instead (a mismatch or a missing argument renders
// as "<?>" rather than undefined behaviour) and formats each conversion with
// snprintf. std::string arguments are accepted for %s.
//
// Rate limiting, on the activity loop's clock (Kiv::System::currentTime()):
//  * minInterval > 0: after a message is emitted, further messages of the
//    same handle within minInterval seconds are suppressed.
//  * rate > 0: a token bucket of max(1, rate) tokens refilled at rate tokens
//    per second; each emitted message takes one token. rate <= 0: no budget.
//  * The first message emitted after suppressions carries
//    " (<n> similar messages suppressed)".
//  * flags & LogFlagNoRateLimit: neither limit applies.
//
// Output: one line per message, to stderr (default) as
//    "<time> <severity> %<NAME>: <text>"
// or to syslog with the severity as priority and "%<NAME>: <text>" as text.
// While a LogCapture lives, messages go to the captures only.
#include <cstdint>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

namespace Kiv {

// Severities, as syslog's.
enum LogSeverity : int {
   LogEmergency = 0,
   LogAlert = 1,
   LogCritical = 2,
   LogError = 3,
   LogWarning = 4,
   LogNotice = 5,
   LogInfo = 6,
   LogDebug = 7,
};
const char * logSeverityName( int severity );

inline constexpr const char * NoActionRequired = "No action is required.";

inline constexpr unsigned LogFlagNoRateLimit = 1u << 0;

enum class LogOutput { Stderr, Syslog, None };

// One argument of log(), reduced to what printf conversions can take.
struct LogArg {
   enum class Kind { Signed, Unsigned, Double, String, Pointer } kind;
   long long i = 0;
   unsigned long long u = 0;
   double d = 0.0;
   const char * s = nullptr;
   const void * p = nullptr;
};

inline LogArg logArg( const char * s ) { return { LogArg::Kind::String, 0, 0, 0.0, s, nullptr }; }
inline LogArg logArg( char * s ) { return logArg( static_cast< const char * >( s ) ); }
inline LogArg logArg( const std::string & s ) { return logArg( s.c_str() ); }
inline LogArg logArg( const void * p ) { return { LogArg::Kind::Pointer, 0, 0, 0.0, nullptr, p }; }
template < typename T >
   requires std::is_arithmetic_v< T > || std::is_enum_v< T >
LogArg logArg( T v ) {
   if constexpr( std::is_enum_v< T > ) {
      return logArg( static_cast< std::underlying_type_t< T > >( v ) );
   } else if constexpr( std::is_floating_point_v< T > ) {
      return { LogArg::Kind::Double, 0, 0, static_cast< double >( v ), nullptr, nullptr };
   } else if constexpr( std::is_signed_v< T > ) {
      return { LogArg::Kind::Signed, static_cast< long long >( v ), 0, 0.0, nullptr, nullptr };
   } else {
      return { LogArg::Kind::Unsigned, 0, static_cast< unsigned long long >( v ), 0.0, nullptr,
               nullptr };
   }
}

// Substitutes args into a printf format; exposed for tests.
std::string logFormat( const char * format, const LogArg * args, std::size_t count );

class LogHandle {
 public:
   LogHandle( const char * name, int severity, const char * format, const char * explanation,
              const char * recommendedAction, double minInterval, double rate, unsigned flags );
   LogHandle( const LogHandle & ) = delete;
   LogHandle & operator=( const LogHandle & ) = delete;

   const char * name() const { return name_; }
   int severity() const { return severity_; }
   const char * format() const { return format_; }
   const char * explanation() const { return explanation_; }
   const char * recommendedAction() const { return recommendedAction_; }
   double minInterval() const { return minInterval_; }
   double rate() const { return rate_; }
   unsigned flags() const { return flags_; }

   // Whether a message logged now would be emitted (consumes nothing).
   bool okToLog() const;
   std::uint64_t emitted() const { return emitted_; }
   std::uint64_t suppressed() const { return suppressedTotal_; }

   template < typename... Args >
   void log( const Args &... args ) {
      const LogArg a[ sizeof...( Args ) + 1 ] = { logArg( args )..., LogArg{} };
      logArgs( a, sizeof...( Args ) );
   }
   void logArgs( const LogArg * args, std::size_t count );

   // Where messages go when no capture is live.
   static void outputIs( LogOutput output );
   static LogOutput output();

 private:
   bool allowed( double now ) const;

   const char * name_;
   int severity_;
   const char * format_;
   const char * explanation_;
   const char * recommendedAction_;
   double minInterval_;
   double rate_;
   unsigned flags_;
   bool everEmitted_ = false;
   double lastEmitted_ = 0.0;
   double tokens_;
   double tokensAt_ = 0.0;
   bool tokensInit_ = false;
   std::uint64_t pendingSuppressed_ = 0;
   std::uint64_t suppressedTotal_ = 0;
   std::uint64_t emitted_ = 0;
};

struct LoggedMessage {
   std::string name;
   int severity;
   std::string text;
};

// Records every emitted message while it lives (nesting allowed).
class LogCapture {
 public:
   LogCapture();
   ~LogCapture();
   LogCapture( const LogCapture & ) = delete;
   LogCapture & operator=( const LogCapture & ) = delete;
   const std::vector< LoggedMessage > & messages() const { return messages_; }
   std::size_t count( std::string_view name ) const;
   bool contains( std::string_view name, std::string_view text ) const;
   void clear() { messages_.clear(); }

 private:
   friend class LogHandle;
   std::vector< LoggedMessage > messages_;
};

} // namespace Kiv
