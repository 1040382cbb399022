#pragma once
// Debug tracing: one TraceHandle per module ("Pim::Hello", "Pim::Intf", ...),
// levels 1..9 switched on per handle at run time.
//
// A disabled trace statement costs one relaxed load of the handle's bitmask
// and a branch; the stream-insertion expression is not evaluated at all.
//
// Run-time selection (KIV_TRACE environment variable, TraceHandle::configIs):
//    selection := item { "," item }
//    item      := pattern [ "/" levels ]
//    pattern   := a handle name, or a prefix followed by "*" ("Pim::*", "*")
//    levels    := N | N-M | 0          (1 <= N <= M <= 9; 0 = off; absent = 1-9)
// e.g. KIV_TRACE="Pim::Hello/1-9,Pim::Intf/1-4,Pim::*/1".
// A handle takes the levels of the most specific matching item: an exact
// name beats any wildcard, a longer wildcard prefix beats a shorter one, and
// among equals the later item wins. So "Pim::*/1-9,Pim::Hello/0" traces every
// Pim handle but Pim::Hello. Malformed items are reported on stderr and
// ignored; the well-formed ones still apply.
//
// Sinks: a line whose level is enabled on the handle goes to stderr as
//    "<time> <handle>/<level>: <text>"
// and every line emitted while a TraceCapture lives is also collected by it.
// A capture can enable levels for itself only: those lines are collected
// but not written to stderr.
#include <atomic>
#include <cstdint>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

namespace Kiv {

inline constexpr int kTraceMinLevel = 1;
inline constexpr int kTraceMaxLevel = 9;

// One parsed item of a trace selection.
struct TraceRule {
   std::string pattern;      // without the trailing '*'
   bool wildcard = false;
   std::uint16_t mask = 0;   // bit n set = level n enabled
};

struct TraceSelection {
   std::vector< TraceRule > rules;
   std::vector< std::string > errors;  // one message per malformed item
   static TraceSelection parse( const std::string & text );
   // Levels the rules give to the named handle (0 when none matches).
   std::uint16_t maskFor( const std::string & handleName ) const;
   // Whether any rule matches the name at all.
   bool matches( const std::string & handleName ) const;
};

class TraceHandle {
 public:
   explicit TraceHandle( std::string name );
   ~TraceHandle();
   TraceHandle( const TraceHandle & ) = delete;
   TraceHandle & operator=( const TraceHandle & ) = delete;

   const std::string & name() const { return name_; }
   // The hot test made by KIV_TRACE: inline, no call.
   bool enabled( int level ) const {
      return ( mask_.load( std::memory_order_relaxed ) >> ( level & 15 ) ) & 1u;
   }
   // Levels enabled for stderr output (captures aside).
   bool levelEnabled( int level ) const;
   void levelEnabledIs( int level, bool on );
   void levelsEnabledIs( int first, int last, bool on );

   // Every handle, present and future (tests).
   static void enableAll( int first = kTraceMinLevel, int last = kTraceMaxLevel );
   // Switches every level of every handle off and forgets the selection.
   static void disableAll();
   // Replaces the selection; returns the malformed-item messages.
   static std::vector< std::string > configIs( const std::string & selection );
   // Re-reads KIV_TRACE (read once anyway when the first handle is made).
   static std::vector< std::string > configFromEnvironment();
   // First live handle with this name, or null.
   static TraceHandle * handle( const std::string & name );

 private:
   friend class TraceRegistry;
   void updateMask();
   std::string name_;
   std::uint16_t userMask_ = 0;
   std::uint16_t captureMask_ = 0;
   std::atomic< std::uint16_t > mask_{ 0 };
};

// One emitted trace line.
struct TraceLine {
   double time = 0.0;
   const char * file = "";
   int line = 0;
   const char * function = "";
   std::string handle;
   int level = 0;
   std::string text;
   // The stderr form: "<time> <handle>/<level>: <text>".
   std::string format() const;
};

// Collects every trace line emitted while it lives (nesting allowed: each
// live capture gets each line).
class TraceCapture {
 public:
   TraceCapture();
   ~TraceCapture();
   TraceCapture( const TraceCapture & ) = delete;
   TraceCapture & operator=( const TraceCapture & ) = delete;

   // Enables levels for this capture only, with the KIV_TRACE syntax.
   // Returns the malformed-item messages.
   std::vector< std::string > enable( const std::string & selection );

   const std::vector< TraceLine > & lines() const { return lines_; }
   void clear() { lines_.clear(); }
   // Whether some line of this handle and level contains the text.
   bool contains( const std::string & handle, int level, const std::string & text ) const;
   std::size_t count( const std::string & handle, int level = 0 ) const;

 private:
   friend class TraceRegistry;
   TraceSelection selection_;
   std::vector< TraceLine > lines_;
};

// Builds one line; records it when destroyed.
class TraceHelper {
 public:
   TraceHelper( TraceHandle & handle, int level, const char * file, int line,
                const char * function );
   TraceHelper( TraceHelper && other ) noexcept;
   TraceHelper & operator=( TraceHelper && ) = delete;
   ~TraceHelper();

   // Present only when the level is enabled on the handle.
   static std::optional< TraceHelper > createIfEnabled( TraceHandle & handle, int level,
                                                        const char * file = "",
                                                        int line = 0,
                                                        const char * function = "" );
   std::ostream & stream() { return stream_; }
   template < typename T >
   TraceHelper & operator<<( const T & value ) {
      stream_ << value;
      return *this;
   }

 private:
   TraceHandle * handle_;
   int level_;
   const char * file_;
   int line_;
   const char * function_;
   bool live_ = true;
   std::ostringstream stream_;
};

} // namespace Kiv

// KIV_TRACE( handle, level, "Creating neighbor " << addr << " on " << intf );
#define KIV_TRACE( handle, level, expr )                                            \
   do {                                                                             \
      ::Kiv::TraceHandle & kivTraceHandle_ = ( handle );                            \
      if( kivTraceHandle_.enabled( level ) ) [[unlikely]] {                         \
         ::Kiv::TraceHelper kivTraceHelper_( kivTraceHandle_, ( level ), __FILE__,  \
                                             __LINE__, __func__ );                  \
         kivTraceHelper_.stream() << expr;                                          \
      }                                                                             \
   } while( 0 )

// KIV_TRACE_HANDLE_FN( nbrTrace, "Pim::Neighbor" ) defines a static function
// nbrTrace() returning the module's handle, created on first use.
#define KIV_TRACE_HANDLE_FN( fn, name )                                             \
   [[maybe_unused]] static ::Kiv::TraceHandle & fn() {                              \
      static ::Kiv::TraceHandle kivHandle_( name );                                 \
      return kivHandle_;                                                            \
   }
// KIV_TRACE_HANDLE( "Pim::Hello" ) defines the file's default handle th().
#define KIV_TRACE_HANDLE( name ) KIV_TRACE_HANDLE_FN( th, name )
