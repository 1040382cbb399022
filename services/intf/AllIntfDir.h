#pragma once
// The agent's local directories of interface configuration and status, by
// interface name. Writers place one entity per interface; readers look up by
// name.
#include "kiv/Entity.h"

namespace Interface {

class AllIntfConfigDir : public Kiv::Dir {
 public:
   explicit AllIntfConfigDir( const Kiv::Name & n = Kiv::Name() ) : Kiv::Dir( n ) {}
   const char * typeName() const override { return "Interface::AllIntfConfigDir"; }
};
class AllIntfStatusDir : public Kiv::Dir {
 public:
   explicit AllIntfStatusDir( const Kiv::Name & n = Kiv::Name() ) : Kiv::Dir( n ) {}
   const char * typeName() const override { return "Interface::AllIntfStatusDir"; }
};
class AllIntfStatusLocalDir : public Kiv::Dir {
 public:
   explicit AllIntfStatusLocalDir( const Kiv::Name & n = Kiv::Name() ) : Kiv::Dir( n ) {}
   const char * typeName() const override { return "Interface::AllIntfStatusLocalDir"; }
};

} // namespace Interface
