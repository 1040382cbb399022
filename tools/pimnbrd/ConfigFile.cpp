#include "ConfigFile.h"

#include <yaml-cpp/yaml.h>

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <fstream>
#include <set>
#include <sstream>

#include <fmt/format.h>

#include "lumo/IpGenPrefix.h"

namespace Pimnbrd {

namespace {

constexpr std::size_t kVrfNameMax = 100;       // L3::VrfName
constexpr std::size_t kNamespaceNameMax = 150; // Lumo::NamespaceName
constexpr std::size_t kIfNameMax = 15;         // IFNAMSIZ - 1
constexpr std::uint64_t kNeighborLimitMax = 1u << 20;  // rows the status tables may grow to

std::string join( const std::string & path, const std::string & key ) {
   return path.empty() ? key : path + "." + key;
}

class Reader {
 public:
   explicit Reader( const std::string & file ) : file_( file ) {}

   std::vector< ConfigError > errors;

   void error( const YAML::Mark & m, const std::string & path, const std::string & message ) {
      // A null node has no place of its own: report it at its parent's.
      errors.push_back( { file_, m.line >= 0 ? m.line + 1 : 1, m.column >= 0 ? m.column + 1 : 1, path, message } );
   }

   // Calls each( key, keyNode, value ) for every entry of a mapping, after
   // rejecting duplicates and non-scalar keys.
   template < typename F >
   bool forEachEntry( const YAML::Node & n, const std::string & path, const YAML::Mark & where, F each ) {
      if( n.IsNull() ) return true;
      if( !n.IsMap() ) {
         error( n.Mark().line >= 0 ? n.Mark() : where, path, "expected a mapping" );
         return false;
      }
      std::set< std::string > seen;
      for( auto it = n.begin(); it != n.end(); ++it ) {
         // Copies: it-> yields a temporary pair, and nodes are handles.
         const YAML::Node k = it->first;
         const YAML::Node v = it->second;
         if( !k.IsScalar() ) {
            error( k.Mark(), path, "expected a plain key" );
            continue;
         }
         const std::string key = k.Scalar();
         if( !seen.insert( key ).second ) {
            error( k.Mark(), join( path, key ), "duplicate key" );
            continue;
         }
         each( key, k, v );
      }
      return true;
   }

   bool scalar( const YAML::Node & n, const std::string & path, const YAML::Mark & where, const char * what ) {
      if( n.IsScalar() ) return true;
      error( n.Mark().line >= 0 ? n.Mark() : where, path, fmt::format( "expected {}", what ) );
      return false;
   }

   std::optional< std::uint64_t > uintIn( const YAML::Node & n, const std::string & path, const YAML::Mark & where,
                                          std::uint64_t lo, std::uint64_t hi ) {
      const std::string what = fmt::format( "an integer from {} to {}", lo, hi );
      if( !scalar( n, path, where, what.c_str() ) ) return std::nullopt;
      const std::string & s = n.Scalar();
      std::uint64_t v = 0;
      const auto [ end, ec ] = std::from_chars( s.data(), s.data() + s.size(), v );
      if( s.empty() || ec != std::errc() || end != s.data() + s.size() || v < lo || v > hi ) {
         error( n.Mark(), path, fmt::format( "'{}' is not {}", s, what ) );
         return std::nullopt;
      }
      return v;
   }

   std::optional< double > number( const YAML::Node & n, const std::string & path, const YAML::Mark & where ) {
      if( !scalar( n, path, where, "a number" ) ) return std::nullopt;
      const std::string & s = n.Scalar();
      char * end = nullptr;
      const double v = s.empty() ? NAN : std::strtod( s.c_str(), &end );
      if( s.empty() || end != s.c_str() + s.size() || !std::isfinite( v ) ) {
         error( n.Mark(), path, fmt::format( "'{}' is not a number", s ) );
         return std::nullopt;
      }
      return v;
   }

   std::optional< bool > boolean( const YAML::Node & n, const std::string & path, const YAML::Mark & where ) {
      if( !scalar( n, path, where, "true or false" ) ) return std::nullopt;
      if( n.Scalar() == "true" ) return true;
      if( n.Scalar() == "false" ) return false;
      error( n.Mark(), path, fmt::format( "'{}' is not true or false", n.Scalar() ) );
      return std::nullopt;
   }

   // One of the words, returned as its index.
   std::optional< std::size_t > word( const YAML::Node & n, const std::string & path, const YAML::Mark & where,
                                      std::initializer_list< const char * > words ) {
      std::string list;
      for( const char * w : words ) list += list.empty() ? w : std::string( ", " ) + w;
      const std::string what = "one of " + list;
      if( !scalar( n, path, where, what.c_str() ) ) return std::nullopt;
      std::size_t i = 0;
      for( const char * w : words ) {
         if( n.Scalar() == w ) return i;
         ++i;
      }
      error( n.Mark(), path, fmt::format( "'{}' is not {}", n.Scalar(), what ) );
      return std::nullopt;
   }

   void top( const YAML::Node & root, DaemonConfig & c ) {
      const YAML::Mark origin = root.Mark();
      forEachEntry( root, "", origin, [ & ]( const std::string & key, const YAML::Node & k, const YAML::Node & v ) {
         const YAML::Mark at = k.Mark();
         if( key == "address-families" ) {
            addressFamilies( v, key, at, c );
         } else if( key == "dr-delay" ) {
            if( auto x = uintIn( v, key, at, 0, 65535 ) ) c.drDelay = std::uint16_t( *x );
         } else if( key == "redundancy" ) {
            if( auto x = word( v, key, at, { "active", "standby" } ) ) c.role = *x ? Role::standby : Role::active;
         } else if( key == "mlag" ) {
            forEachEntry( v, key, at, [ & ]( const std::string & mk, const YAML::Node & mkn, const YAML::Node & mv ) {
               const std::string p = join( key, mk );
               if( mk == "ports-errdisabled" ) {
                  if( auto x = boolean( mv, p, mkn.Mark() ) ) c.mlagPortsErrdisabled = *x;
               } else {
                  error( mkn.Mark(), p, "unknown key" );
               }
            } );
         } else if( key == "service-acl" ) {
            forEachEntry( v, key, at, [ & ]( const std::string & ak, const YAML::Node & akn, const YAML::Node & av ) {
               const std::string p = join( key, ak );
               if( ak == "ipv4" ) {
                  acl( av, p, akn.Mark(), Lumo::AddressFamily::ipv4, c.serviceAcl4 );
               } else if( ak == "ipv6" ) {
                  acl( av, p, akn.Mark(), Lumo::AddressFamily::ipv6, c.serviceAcl6 );
               } else {
                  error( akn.Mark(), p, "unknown key" );
               }
            } );
         } else if( key == "vrfs" ) {
            forEachEntry( v, key, at, [ & ]( const std::string & name, const YAML::Node & kn, const YAML::Node & vv ) {
               vrf( name, kn, vv, c );
            } );
         } else {
            error( at, key, "unknown key" );
         }
      } );
   }

   void addressFamilies( const YAML::Node & v, const std::string & path, const YAML::Mark & at, DaemonConfig & c ) {
      if( !v.IsSequence() || v.size() == 0 ) {
         error( v.Mark().line >= 0 ? v.Mark() : at, path, "expected a list of ipv4, ipv6" );
         return;
      }
      c.ipv4 = c.ipv6 = false;
      for( const auto & e : v ) {
         const auto af = word( e, path, at, { "ipv4", "ipv6" } );
         if( !af ) continue;
         bool & on = *af ? c.ipv6 : c.ipv4;
         if( on ) error( e.Mark(), path, fmt::format( "'{}' listed twice", e.Scalar() ) );
         on = true;
      }
   }

   void acl( const YAML::Node & v, const std::string & path, const YAML::Mark & at, Lumo::AddressFamily af,
             std::vector< AclRule > & rules ) {
      if( v.IsNull() ) return;
      if( !v.IsSequence() ) {
         error( v.Mark(), path, "expected a list of 'permit PREFIX' or 'deny PREFIX'" );
         return;
      }
      for( const auto & e : v ) {
         if( !scalar( e, path, at, "'permit PREFIX' or 'deny PREFIX'" ) ) continue;
         std::istringstream words( e.Scalar() );
         std::string action, prefix, extra;
         words >> action >> prefix >> extra;
         if( ( action != "permit" && action != "deny" ) || prefix.empty() || !extra.empty() ) {
            error( e.Mark(), path, fmt::format( "'{}' is not 'permit PREFIX' or 'deny PREFIX'", e.Scalar() ) );
            continue;
         }
         try {
            const auto p = Lumo::IpGenPrefix::fromStrep( prefix );
            if( p.af() != af ) {
               error( e.Mark(), path, fmt::format( "'{}' is not an {} prefix", prefix, af == Lumo::AddressFamily::ipv4 ? "IPv4" : "IPv6" ) );
               continue;
            }
            rules.push_back( { action == "permit", Lumo::valueToStrep( p ) } );
         } catch( const std::exception & ) {
            error( e.Mark(), path, fmt::format( "'{}' is not a prefix (address/length, no host bits)", prefix ) );
         }
      }
   }

   static bool validName( const std::string & s, std::size_t max, bool colonOk ) {
      if( s.empty() || s.size() > max || s == "." || s == ".." ) return false;
      for( char ch : s ) {
         if( ch == '/' || ch == ' ' || ch == '\t' || ch == '\n' || ( !colonOk && ch == ':' ) ) return false;
      }
      return true;
   }

   void vrf( const std::string & name, const YAML::Node & kn, const YAML::Node & v, DaemonConfig & c ) {
      const std::string path = join( "vrfs", name );
      if( name.empty() || name.size() > kVrfNameMax ) {
         error( kn.Mark(), path, fmt::format( "a VRF name has 1 to {} characters", kVrfNameMax ) );
         return;
      }
      VrfSettings s;
      std::optional< YAML::Node > intfs;   // read after the VRF's own keys
      std::optional< YAML::Mark > nsAt;
      YAML::Mark intfsAt;
      forEachEntry( v, path, kn.Mark(), [ & ]( const std::string & key, const YAML::Node & k, const YAML::Node & x ) {
         const std::string p = join( path, key );
         if( key == "namespace" ) {
            nsAt = x.Mark().line >= 0 ? x.Mark() : k.Mark();
            if( !scalar( x, p, k.Mark(), "a network namespace name" ) ) return;
            if( !validName( x.Scalar(), kNamespaceNameMax, true ) ) {
               error( x.Mark(), p, fmt::format( "'{}' is not a namespace name (1 to {} characters, no '/')",
                                                 x.Scalar(), kNamespaceNameMax ) );
               return;
            }
            s.netns = x.Scalar();
         } else if( key == "multicast-routing" ) {
            if( auto b = boolean( x, p, k.Mark() ) ) s.multicastRouting = *b;
         } else if( key == "pim" ) {
            if( auto b = boolean( x, p, k.Mark() ) ) s.pimConfigured = *b;
         } else if( key == "bfd" ) {
            if( auto b = boolean( x, p, k.Mark() ) ) s.bfdDefault = *b;
         } else if( key == "neighbor-change-log" ) {
            if( auto b = boolean( x, p, k.Mark() ) ) s.neighborChangeLog = *b;
         } else if( key == "neighbor-limit" ) {
            if( auto n = uintIn( x, p, k.Mark(), 1, kNeighborLimitMax ) ) s.neighborLimit = std::uint32_t( *n );
         } else if( key == "interfaces" ) {
            intfs = x;
            intfsAt = k.Mark();
         } else {
            error( k.Mark(), p, "unknown key" );
         }
      } );
      if( name == "default" && !s.netns.empty() ) {
         error( *nsAt, join( path, "namespace" ), "the default VRF is the daemon's own namespace" );
      } else if( name != "default" && !nsAt ) {
         error( kn.Mark(), join( path, "namespace" ), "a VRF other than default needs its network namespace" );
      }
      for( const auto & [ other, o ] : c.vrfs ) {
         if( !s.netns.empty() && o.netns == s.netns ) {
            error( *nsAt, join( path, "namespace" ), fmt::format( "namespace '{}' already belongs to VRF {}", s.netns, other ) );
         }
      }
      if( intfs ) {
         const std::string ip = join( path, "interfaces" );
         forEachEntry( *intfs, ip, intfsAt, [ & ]( const std::string & iname, const YAML::Node & ik, const YAML::Node & iv ) {
            const std::string p = join( ip, iname );
            if( !validName( iname, kIfNameMax, false ) ) {
               error( ik.Mark(), p, fmt::format( "an interface name has 1 to {} characters, no '/', ':' or space", kIfNameMax ) );
               return;
            }
            // The agent keys interface configuration by name alone, so a name
            // belongs to one VRF even across namespaces.
            for( const auto & [ other, o ] : c.vrfs ) {
               if( o.interfaces.count( iname ) ) {
                  error( ik.Mark(), p, fmt::format( "interface already configured in VRF {}", other ) );
                  return;
               }
            }
            s.interfaces[ iname ] = intf( iv, p, ik.Mark() );
         } );
      }
      c.vrfs[ name ] = std::move( s );
   }

   IntfSettings intf( const YAML::Node & v, const std::string & path, const YAML::Mark & at ) {
      IntfSettings s;
      std::optional< std::uint64_t > holdTime;
      std::optional< double > multiplier;
      std::optional< std::uint64_t > jpHoldTime;
      std::optional< double > jpMultiplier;
      YAML::Mark holdAt, jpHoldAt, intervalAt = at, jpIntervalAt = at;
      std::string holdKey, jpHoldKey;
      forEachEntry( v, path, at, [ & ]( const std::string & key, const YAML::Node & k, const YAML::Node & x ) {
         const std::string p = join( path, key );
         const YAML::Mark km = k.Mark();
         if( key == "mode" ) {
            if( auto w = word( x, p, km, { "sparse", "bidir", "sparse-bidir" } ) ) s.mode = std::uint8_t( *w + 1 );
         } else if( key == "border-router" ) {
            if( auto b = boolean( x, p, km ) ) s.borderRouter = *b;
         } else if( key == "hello-interval" ) {
            intervalAt = km;
            if( auto n = uintIn( x, p, km, 1, 65535 ) ) s.helloInterval = std::uint16_t( *n );
         } else if( key == "hello-holdtime" || key == "hello-multiplier" ) {
            if( !holdKey.empty() ) {
               error( km, p, fmt::format( "{} and {} exclude each other", holdKey, key ) );
               return;
            }
            holdKey = key;
            holdAt = x.Mark().line >= 0 ? x.Mark() : km;
            if( key == "hello-holdtime" ) {
               holdTime = uintIn( x, p, km, 1, 65535 );
            } else {
               multiplier = number( x, p, km );
            }
         } else if( key == "jp-interval" ) {
            jpIntervalAt = km;
            if( auto n = uintIn( x, p, km, 1, 65535 ) ) s.joinPruneInterval = std::uint16_t( *n );
         } else if( key == "jp-holdtime" || key == "jp-multiplier" ) {
            if( !jpHoldKey.empty() ) {
               error( km, p, fmt::format( "{} and {} exclude each other", jpHoldKey, key ) );
               return;
            }
            jpHoldKey = key;
            jpHoldAt = x.Mark().line >= 0 ? x.Mark() : km;
            if( key == "jp-holdtime" ) {
               jpHoldTime = uintIn( x, p, km, 1, 65535 );
            } else {
               jpMultiplier = number( x, p, km );
            }
         } else if( key == "dr-priority" ) {
            if( auto n = uintIn( x, p, km, 0, 4294967295u ) ) s.drPriority = std::uint32_t( *n );
         } else if( key == "neighbor-limit" ) {
            if( auto n = uintIn( x, p, km, 1, kNeighborLimitMax ) ) s.neighborLimit = std::uint32_t( *n );
         } else if( key == "bfd" ) {
            if( auto w = word( x, p, km, { "default", "true", "false" } ) ) s.bfd = Bfd( *w );
         } else if( key == "fast-failover" ) {
            if( auto b = boolean( x, p, km ) ) s.fastFailover = *b;
         } else if( key == "propagation-delay" ) {
            // The Hello option's field has 15 bits.
            if( auto n = uintIn( x, p, km, 0, 32767 ) ) s.propagationDelay = std::uint16_t( *n );
         } else if( key == "override-interval" ) {
            if( auto n = uintIn( x, p, km, 0, 65535 ) ) s.overrideInterval = std::uint16_t( *n );
         } else {
            error( km, p, "unknown key" );
         }
      } );
      if( holdKey.empty() ) {
         holdKey = "hello-interval";
         holdAt = intervalAt;
      }
      if( jpHoldKey.empty() ) {
         jpHoldKey = "jp-interval";
         jpHoldAt = jpIntervalAt;
      }
      holdRule( s.helloInterval, holdTime, multiplier, join( path, holdKey ), holdAt, "hello-interval", s.helloMultiplier );
      holdRule( s.joinPruneInterval, jpHoldTime, jpMultiplier, join( path, jpHoldKey ), jpHoldAt, "jp-interval",
                s.joinPruneMultiplier );
      return s;
   }

   // A hold time must be above its interval and fit 16 bits (65535 means
   // never expire, which a configured period may not ask for).
   void holdRule( std::uint16_t interval, std::optional< std::uint64_t > holdTime, std::optional< double > multiplier,
                  const std::string & path, const YAML::Mark & at, const char * intervalKey, double & out ) {
      if( holdTime ) {
         if( *holdTime <= interval ) {
            error( at, path, fmt::format( "hold time {} s is not above {} {} s", *holdTime, intervalKey, interval ) );
            return;
         }
         // Half a second over, so that interval x multiplier truncates to
         // exactly the hold time asked for.
         out = ( double( *holdTime ) + 0.5 ) / interval;
      } else if( multiplier ) {
         const double hold = *multiplier * interval;
         if( *multiplier <= 1.0 ) {
            error( at, path, fmt::format( "hold time {} x {} s is not above {} {} s", *multiplier, interval,
                                          intervalKey, interval ) );
         } else if( hold >= 65535.0 ) {
            error( at, path, fmt::format( "hold time {} x {} s exceeds 65534 s", *multiplier, interval ) );
         } else {
            out = *multiplier;
         }
      } else if( std::uint32_t( double( interval ) * out ) >= 65535u ) {
         error( at, path, fmt::format( "default hold time {} x {} s exceeds 65534 s", out, interval ) );
      }
   }

 private:
   std::string file_;
};

} // namespace

std::string ConfigError::text() const {
   return fmt::format( "{}:{}:{}: {}: {}", file, line, column, path.empty() ? "(file)" : path, message );
}

std::uint16_t IntfSettings::holdTime() const {
   const double h = double( helloInterval ) * helloMultiplier;
   return h >= 65535.0 ? 65535 : std::uint16_t( h );
}

ParseResult parseConfigText( const std::string & text, const std::string & fileName ) {
   ParseResult r;
   Reader reader( fileName );
   YAML::Node root;
   try {
      root = YAML::Load( text );
   } catch( const YAML::ParserException & e ) {
      reader.error( e.mark, "", e.msg );
      r.errors = std::move( reader.errors );
      return r;
   }
   DaemonConfig c;
   if( !root.IsNull() && !root.IsMap() ) {
      reader.error( root.Mark(), "", "expected a mapping of settings" );
   } else {
      reader.top( root, c );
   }
   r.errors = std::move( reader.errors );
   if( r.errors.empty() ) r.config = std::move( c );
   return r;
}

ParseResult parseConfigFile( const std::string & path ) {
   std::ifstream in( path, std::ios::binary );
   if( !in ) {
      ParseResult r;
      r.errors.push_back( { path, 0, 0, "", "cannot be read" } );
      return r;
   }
   std::ostringstream ss;
   ss << in.rdbuf();
   return parseConfigText( ss.str(), path );
}

} // namespace Pimnbrd
