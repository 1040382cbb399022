#include "rpcheck/RpPrefixTrie.h"

#include <algorithm>
#include <cassert>
#include <cstdint>
#include <limits>

#include "lumo/IpGenAddr.h"

namespace Routing::Pim {

namespace {

using Lumo::AddressFamily;
using Lumo::IpGenAddr;
using Lumo::IpGenPrefix;

bool bitAt( const IpGenAddr & a, unsigned i ) {
   return ( a.bytes()[ i / 8 ] >> ( 7 - i % 8 ) ) & 1;
}

IpGenPrefix rootPrefix( AddressFamily af ) {
   return af == AddressFamily::ipv4 ? IpGenPrefix( IpGenAddr::ipv4( 0 ), 0 )
                                    : IpGenPrefix( IpGenAddr( IpGenAddr::Bytes16{} ), 0 );
}

// The half of p whose next bit is bit.
IpGenPrefix childPrefix( const IpGenPrefix & p, bool bit ) {
   const unsigned len = p.len();
   assert( len < p.address().maxMaskLen() );
   IpGenAddr::Bytes16 b{};
   const auto src = p.address().bytes();
   std::copy( src.begin(), src.end(), b.begin() );
   if( bit ) b[ len / 8 ] |= std::uint8_t( 0x80u >> ( len % 8 ) );
   if( p.af() == AddressFamily::ipv4 ) {
      return IpGenPrefix( IpGenAddr( IpGenAddr::Bytes4{ b[ 0 ], b[ 1 ], b[ 2 ], b[ 3 ] } ),
                          len + 1 );
   }
   return IpGenPrefix( IpGenAddr( b ), len + 1 );
}

// ---- access list expansion ------------------------------------------------
//
// One node per entry prefix (and the path to it). An address takes the
// entry with the lowest index among the nodes on its path, so a subtree
// whose nodes all have higher indices than the best one above it is decided
// as a whole and needs no walk.
class AclTrie {
 public:
   static constexpr std::uint32_t none = std::numeric_limits< std::uint32_t >::max();

   AclTrie( const Acl::StandardAcl & acl, AddressFamily af )
         : acl_( acl ), root_( rootPrefix( af ) ) {
      nodes_.emplace_back();
      const auto & entries = acl.entries();
      for( std::uint32_t i = 0; i < entries.size(); ++i ) {
         if( entries[ i ].prefix.af() == af ) insert( entries[ i ].prefix, i );
      }
      computeBelow( 0 );
   }

   std::vector< IpGenPrefix > expand() {
      std::vector< IpGenPrefix > out;
      expand( 0, root_, none, out );
      return out;
   }

 private:
   struct Node {
      std::int32_t child[ 2 ] = { -1, -1 };
      std::uint32_t entry = none; // the first entry with exactly this prefix
      std::uint32_t below = none; // the lowest entry strictly below
   };

   void insert( const IpGenPrefix & p, std::uint32_t index ) {
      std::int32_t n = 0;
      for( unsigned d = 0; d < p.len(); ++d ) {
         // An earlier entry covers all of p: p can never match first.
         if( nodes_[ n ].entry != none ) return;
         const bool bit = bitAt( p.address(), d );
         if( nodes_[ n ].child[ bit ] < 0 ) {
            nodes_[ n ].child[ bit ] = std::int32_t( nodes_.size() );
            nodes_.emplace_back();
         }
         n = nodes_[ n ].child[ bit ];
      }
      if( nodes_[ n ].entry == none ) nodes_[ n ].entry = index;
   }

   std::uint32_t computeBelow( std::int32_t n ) {
      std::uint32_t below = none;
      for( std::int32_t c : nodes_[ n ].child ) {
         if( c >= 0 ) below = std::min( below, computeBelow( c ) );
      }
      nodes_[ n ].below = below;
      return std::min( below, nodes_[ n ].entry );
   }

   bool permitted( std::uint32_t best ) const {
      return best != none && acl_.entries()[ best ].action == Acl::AclAction::permit;
   }

   // Appends the permitted part of node n (prefix p) to out, merged into
   // whole halves; returns whether all of p is permitted.
   bool expand( std::int32_t n, const IpGenPrefix & p, std::uint32_t best,
                std::vector< IpGenPrefix > & out ) {
      const Node & node = nodes_[ n ];
      best = std::min( best, node.entry );
      if( node.below >= best ) {
         if( !permitted( best ) ) return false;
         out.push_back( p );
         return true;
      }
      bool full = true;
      for( int bit = 0; bit < 2; ++bit ) {
         const IpGenPrefix half = childPrefix( p, bit );
         const std::int32_t c = nodes_[ n ].child[ bit ];
         if( c >= 0 ) {
            full = expand( c, half, best, out ) && full;
         } else if( permitted( best ) ) {
            out.push_back( half );
         } else {
            full = false;
         }
      }
      if( full ) {
         // Both halves were pushed as one prefix each: merge them.
         out.pop_back();
         out.back() = p;
      }
      return full;
   }

   const Acl::StandardAcl & acl_;
   const IpGenPrefix root_;
   std::vector< Node > nodes_;
};

// ---- findings over all rules -----------------------------------------------
//
// Every prefix of every rule goes into one trie per family; a node lists the
// rules that have exactly its prefix. Equal prefixes meet in a node, wider
// ones lie on the path above it.
class RuleTrie {
 public:
   RuleTrie( const std::vector< StaticRpRule > & rules, RpCheckFindings & findings )
         : rules_( rules ), findings_( findings ) {}

   void add( const IpGenPrefix & p, std::uint32_t rule ) {
      std::int32_t n = rootOf( p.af() );
      for( unsigned d = 0; d < p.len(); ++d ) {
         const bool bit = bitAt( p.address(), d );
         if( nodes_[ n ].child[ bit ] < 0 ) {
            nodes_[ n ].child[ bit ] = std::int32_t( nodes_.size() );
            nodes_.emplace_back();
         }
         n = nodes_[ n ].child[ bit ];
      }
      nodes_[ n ].prefix = p;
      nodes_[ n ].rules.push_back( rule );
   }

   void report() {
      for( std::int32_t root : roots_ ) {
         if( root >= 0 ) visit( root );
      }
      assert( ancestors_.empty() );
   }

 private:
   struct Node {
      IpGenPrefix prefix; // set where rules are
      std::int32_t child[ 2 ] = { -1, -1 };
      std::vector< std::uint32_t > rules;
   };

   std::int32_t rootOf( AddressFamily af ) {
      std::int32_t & root = roots_[ af == AddressFamily::ipv4 ? 0 : 1 ];
      if( root < 0 ) {
         root = std::int32_t( nodes_.size() );
         nodes_.emplace_back();
      }
      return root;
   }

   void visit( std::int32_t n ) {
      const bool holds = !nodes_[ n ].rules.empty();
      if( holds ) {
         reportNode( nodes_[ n ] );
         ancestors_.push_back( n );
      }
      for( int bit = 0; bit < 2; ++bit ) {
         const std::int32_t c = nodes_[ n ].child[ bit ];
         if( c >= 0 ) visit( c );
      }
      if( holds ) ancestors_.pop_back();
   }

   void reportNode( const Node & node ) {
      RpSet rps;
      for( std::uint32_t r : node.rules ) rps.push_back( rules_[ r ].rpAddr() );
      std::sort( rps.begin(), rps.end() );
      rps.erase( std::unique( rps.begin(), rps.end() ), rps.end() );
      if( rps.size() > 1 ) findings_.conflicts[ node.prefix ] = std::move( rps );
      for( std::int32_t a : ancestors_ ) {
         const Node & wider = nodes_[ a ];
         for( std::uint32_t r : node.rules ) {
            for( std::uint32_t w : wider.rules ) {
               // A rule's own prefixes are disjoint.
               assert( r != w );
               findings_.overlaps.insert(
                  RpOverlap{ rules_[ r ], node.prefix, rules_[ w ], wider.prefix } );
            }
         }
      }
   }

   const std::vector< StaticRpRule > & rules_;
   RpCheckFindings & findings_;
   std::vector< Node > nodes_;
   std::int32_t roots_[ 2 ] = { -1, -1 };
   std::vector< std::int32_t > ancestors_;
};

} // namespace

std::vector< IpGenPrefix > expandStandardAcl( const Acl::StandardAcl & acl, AddressFamily af ) {
   assert( af == AddressFamily::ipv4 || af == AddressFamily::ipv6 );
   return AclTrie( acl, af ).expand();
}

RpCheckFindings checkStaticRpRules( const std::vector< StaticRpRule > & rules,
                                    const Acl::StandardAclConfig * acls ) {
   RpCheckFindings findings;
   RuleTrie trie( rules, findings );
   for( std::uint32_t i = 0; i < rules.size(); ++i ) {
      const StaticRpRule & rule = rules[ i ];
      if( !rule.usesAcl() ) {
         trie.add( rule.groupPrefix(), i );
         continue;
      }
      const Acl::StandardAcl * acl =
         acls ? acls->standardAclColl().find( rule.aclName() ) : nullptr;
      if( !acl ) {
         findings.missingAcls.insert( rule.aclName() );
         continue;
      }
      for( const IpGenPrefix & p : expandStandardAcl( *acl, rule.rpAddr().af() ) ) trie.add( p, i );
   }
   trie.report();
   return findings;
}

} // namespace Routing::Pim
