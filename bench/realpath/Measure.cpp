#include "bench/realpath/Measure.h"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <nlohmann/json.hpp>
#include <vector>

namespace RealPath {

namespace {

std::vector< std::string_view > fields( std::string_view s ) {
   std::vector< std::string_view > out;
   std::size_t i = 0;
   while( i < s.size() ) {
      while( i < s.size() && ( s[ i ] == ' ' || s[ i ] == '\t' || s[ i ] == '\n' ) ) {
         ++i;
      }
      std::size_t j = i;
      while( j < s.size() && s[ j ] != ' ' && s[ j ] != '\t' && s[ j ] != '\n' ) {
         ++j;
      }
      if( j > i ) {
         out.push_back( s.substr( i, j - i ) );
      }
      i = j;
   }
   return out;
}

std::optional< std::uint64_t > toU64( std::string_view s, int base = 10 ) {
   std::uint64_t v = 0;
   auto [ p, ec ] = std::from_chars( s.data(), s.data() + s.size(), v, base );
   if( ec != std::errc() || p != s.data() + s.size() ) {
      return std::nullopt;
   }
   return v;
}

std::uint64_t countWithKey( const nlohmann::json & j, const std::string & key ) {
   std::uint64_t n = 0;
   if( j.is_object() ) {
      if( j.contains( key ) ) {
         ++n;
      }
      for( const auto & [ k, v ] : j.items() ) {
         n += countWithKey( v, key );
      }
   } else if( j.is_array() ) {
      for( const auto & v : j ) {
         n += countWithKey( v, key );
      }
   }
   return n;
}

} // namespace

std::optional< std::uint64_t > parseStatCpuTicks( std::string_view stat ) {
   auto close = stat.rfind( ')' );
   if( close == std::string_view::npos ) {
      return std::nullopt;
   }
   // After the name: state(3) ... utime(14) stime(15), so indexes 11 and 12.
   auto f = fields( stat.substr( close + 1 ) );
   if( f.size() < 13 ) {
      return std::nullopt;
   }
   auto u = toU64( f[ 11 ] );
   auto s = toU64( f[ 12 ] );
   if( !u || !s ) {
      return std::nullopt;
   }
   return *u + *s;
}

std::optional< std::uint64_t > parseStatmRssPages( std::string_view statm ) {
   auto f = fields( statm );
   return f.size() < 2 ? std::nullopt : toU64( f[ 1 ] );
}

std::optional< std::uint64_t > parseSchedstatNs( std::string_view schedstat ) {
   auto f = fields( schedstat );
   return f.empty() ? std::nullopt : toU64( f[ 0 ] );
}

std::uint64_t parseRawDrops( std::string_view text, unsigned proto ) {
   std::uint64_t drops = 0;
   std::size_t pos = 0;
   bool header = true;
   while( pos < text.size() ) {
      auto eol = text.find( '\n', pos );
      auto line = text.substr( pos, eol == std::string_view::npos ? eol : eol - pos );
      pos = eol == std::string_view::npos ? text.size() : eol + 1;
      if( header ) {
         header = false;
         continue;
      }
      auto f = fields( line );
      if( f.size() < 13 ) {
         continue;
      }
      auto colon = f[ 1 ].rfind( ':' );
      if( colon == std::string_view::npos ) {
         continue;
      }
      auto p = toU64( f[ 1 ].substr( colon + 1 ), 16 );
      auto d = toU64( f.back() );
      if( p && d && *p == proto ) {
         drops += *d;
      }
   }
   return drops;
}

std::optional< std::uint64_t > parseNeighbourCount( const std::string & output,
                                                    const std::string & key ) {
   auto j = nlohmann::json::parse( output, nullptr, false );
   if( j.is_discarded() ) {
      return std::nullopt;
   }
   if( j.is_number_unsigned() ) {
      return j.get< std::uint64_t >();
   }
   if( !j.is_object() && !j.is_array() ) {
      return std::nullopt;
   }
   return countWithKey( j, key );
}

RateSearch::RateSearch( double start, double cap, double precision, int maxTrials )
    : start_( start ), cap_( cap ), precision_( precision ), maxTrials_( maxTrials ) {}

std::optional< double > RateSearch::next() const {
   if( trials_ >= maxTrials_ ) {
      return std::nullopt;
   }
   if( failed_ == 0 ) {
      // Growing by 4x until the cap has held: few trials to bracket a limit
      // that may be anywhere from 1 k to 1 M per second.
      if( held_ >= cap_ ) {
         return std::nullopt;
      }
      return held_ == 0 ? start_ : std::min( held_ * 4, cap_ );
   }
   if( held_ == 0 ) {
      return failed_ / 2; // nothing held yet: halve towards zero
   }
   if( failed_ <= held_ * ( 1 + precision_ ) ) {
      return std::nullopt;
   }
   return std::sqrt( held_ * failed_ );
}

void RateSearch::record( double rate, bool held ) {
   ++trials_;
   if( held ) {
      held_ = std::max( held_, rate );
   } else if( failed_ == 0 || rate < failed_ ) {
      failed_ = rate;
   }
}

} // namespace RealPath
