#pragma once
// Rundle: an always-on record of recent events in ring buffers, kept in a
// memory-mapped file so that it survives a crash of the process.
//
//    Rundle::initialize( "pimnbr", std::vector< int >( 10, 10 ), nullptr, 0, 24,
//                        false, true, 512 );
//    RUNDLE_RECORD( 2, "hello from " << addr << " holdtime " << ht );
//
// initialize( fileName, sizes, dir, keepPrevious, maxLocationBytes,
//             multiThreaded, truncate, maxRecordBytes ):
//  * fileName: name of the file inside the directory; empty = in memory only
//    (tests), nothing touches the file system.
//  * sizes: one ring per entry, each of sizes[i] KiB; level i records into
//    ring min(i, size - 1) (negative levels into ring 0), so chatty levels
//    cannot evict the records of quiet ones. A size <= 0 drops that ring's
//    records.
//  * dir: directory of the file; null or empty = $RUNDLEDIR, and /tmp when
//    that is unset or empty.
//  * keepPrevious: how many earlier files to keep as <file>.1 .. <file>.N
//    (0 = the earlier file is replaced).
//  * maxLocationBytes: at most this many bytes of the source file name (its
//    tail) and of the function name are kept per record; 0 = none kept.
//  * multiThreaded: records may come from several threads (a mutex is taken
//    per record); false = one thread only, no locking.
//  * truncate: a record whose text exceeds maxRecordBytes is cut to that
//    size and flagged; false = such records are dropped (and counted).
//  * maxRecordBytes: limit of a record's text, 16 .. kMaxRecordText.
// Returns false when nothing was set up (disabled, or the file could not be
// created; the latter is reported on stderr).
//
// RUNDLE_DISABLE set in the environment (any value): initialize does nothing
// and every record is dropped without evaluating its expression.
//
// Times are the activity loop's clock (Kiv::System::currentTime()); records
// also carry a sequence number that orders records of equal time.
//
// The file (native byte order): a header, ring descriptors, then the rings.
// Each record is 8-byte aligned and starts with a magic and a CRC-32 over the
// whole record; readers scan every aligned offset and keep only records that
// validate, so torn, overwritten or scribbled records are skipped. The writer
// keeps its positions in private memory and never reads the file back, so a
// reader that damages the mapping cannot steer where the writer writes.
#include <cstddef>
#include <cstdint>
#include <optional>
#include <ostream>
#include <streambuf>
#include <string>
#include <vector>

namespace Rundle {

inline constexpr int kMaxRecordText = 8192;

bool initialize( const std::string & fileName, const std::vector< int > & sizes, const char * dir,
                 int keepPrevious, int maxLocationBytes, bool multiThreaded, bool truncate,
                 int maxRecordBytes );
// Unmaps and closes; records are dropped until the next initialize.
void shutdown();

namespace detail {
extern bool active;
}
// Whether records are kept at all (the test made by RUNDLE_RECORD).
inline bool active() { return detail::active; }
// Path of the file in use ("" in memory or when inactive).
std::string path();

// Records one entry (text need not be terminated).
void record( int level, const char * file, int line, const char * function, const char * text,
             std::size_t textLen, bool truncated );

struct Record {
   double time = 0.0;
   std::uint64_t seq = 0;
   int ring = 0;
   int level = 0;
   int line = 0;
   bool truncated = false;
   std::string file;
   std::string function;
   std::string text;
};

struct ReadResult {
   bool ok = false;               // the header was valid
   std::string error;             // why not
   std::vector< Record > records;  // in time order (then sequence)
   std::size_t damaged = 0;       // records that carried the magic but failed validation
};

// Parses a file image (memory or a copy of a file).
ReadResult parseImage( const void * data, std::size_t size );
ReadResult readFile( const std::string & path );
// The records of the current rundle, in time order.
ReadResult records();
// Writable view of the current image, for tests that play a damaging reader.
std::uint8_t * imageData();
std::size_t imageSize();

struct Stats {
   std::uint64_t written = 0;
   std::uint64_t dropped = 0;    // oversize with truncate off, or empty ring
   std::uint64_t truncated = 0;
};
Stats stats();

// Collects one record's text up to the size limit.
//
// Making a std::ostream costs more than most records' formatting (the locale
// and its facets are looked up each time), so each thread keeps one, pointed
// at the record being written and reset to a new stream's formatting first.
// A record made while another is being formatted gets a stream of its own.
class Recorder : private std::streambuf {
 public:
   Recorder( int level, const char * file, int line, const char * function );
   ~Recorder() override;
   Recorder( const Recorder & ) = delete;
   Recorder & operator=( const Recorder & ) = delete;
   std::ostream & stream() { return *stream_; }

 private:
   int_type overflow( int_type ch ) override;
   int level_;
   const char * file_;
   int line_;
   const char * function_;
   bool truncated_ = false;
   std::ostream * stream_;
   std::optional< std::ostream > own_;
   char buf_[ kMaxRecordText ];
};

} // namespace Rundle

#define RUNDLE_RECORD( level, expr )                                                      \
   do {                                                                                   \
      if( ::Rundle::active() ) {                                                          \
         ::Rundle::Recorder rundleRecorder_( ( level ), __FILE__, __LINE__, __func__ );  \
         rundleRecorder_.stream() << expr;                                                \
      }                                                                                   \
   } while( 0 )

// One sentence to a module's trace and to the ring buffer, written once.
// TRACE is the module's trace macro (it adds its own context); the ring
// buffer gets the sentence behind prefix ("" for none).
#define RUNDLE_TRACE_RECORD( TRACE, level, prefix, expr ) \
   do {                                                   \
      TRACE( level, expr );                               \
      RUNDLE_RECORD( level, prefix << expr );             \
   } while( 0 )
