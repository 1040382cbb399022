#pragma once
// The framework's one range-error type. Mutators throw it for null pointers
// they forbid, values outside an attribute's declared range and over-long
// names; the texts are fixed because operators and tests match on them.
#include <stdexcept>
#include <string>

namespace Kiv {

class RangeException : public std::range_error {
 public:
   explicit RangeException( const std::string & what ) : std::range_error( what ) {}
};

// "null _<param> parameter to mutator for <Class>::<attr> not allowed\""
[[noreturn]] void throwNullParameter( const char * param, const char * className,
                                      const char * attr );

} // namespace Kiv
