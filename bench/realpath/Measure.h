#pragma once
// Pure helpers of the real-path benchmark: parsers of the /proc files it
// samples and the search for the highest sustained rate. Kept apart from the
// program so that they can be unit tested without root or namespaces.
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

namespace RealPath {

// utime + stime of /proc/<pid>/stat, in clock ticks. The command name is in
// parentheses and may itself hold spaces and parentheses, so fields are
// counted from the last ')'.
std::optional< std::uint64_t > parseStatCpuTicks( std::string_view stat );
// Resident pages: the second field of /proc/<pid>/statm.
std::optional< std::uint64_t > parseStatmRssPages( std::string_view statm );
// On-CPU nanoseconds: the first field of /proc/<pid>/task/<tid>/schedstat.
std::optional< std::uint64_t > parseSchedstatNs( std::string_view schedstat );
// Sum of the drops column of /proc/net/raw or /proc/net/raw6 over the
// sockets of IP protocol proto (the "port" of the local address).
std::uint64_t parseRawDrops( std::string_view procNetRaw, unsigned proto );
// Neighbour count from a probe's output: a bare integer is the count;
// otherwise the output is JSON and the count is the number of objects,
// at any depth, that hold the member `key`. nullopt when it is neither.
std::optional< std::uint64_t > parseNeighbourCount( const std::string & output,
                                                    const std::string & key );

// Highest rate that holds: grows by 4x from `start` until a trial
// fails or `cap` is reached, then bisects (geometric midpoint) until the
// bracket is within `precision` (0.1 = 10 %) or `maxTrials` trials are spent.
class RateSearch {
 public:
   RateSearch( double start, double cap, double precision, int maxTrials );
   // Rate of the next trial; nullopt when the search is over.
   std::optional< double > next() const;
   void record( double rate, bool held );
   // Highest rate that held, 0 when none did.
   double best() const { return held_; }
   // Lowest rate that failed, 0 when none did (best() is then a lower bound).
   double failed() const { return failed_; }
   int trials() const { return trials_; }

 private:
   double start_, cap_, precision_;
   int maxTrials_;
   int trials_ = 0;
   double held_ = 0;
   double failed_ = 0;
};

} // namespace RealPath
