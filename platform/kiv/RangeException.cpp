#include "kiv/RangeException.h"

namespace Kiv {

void throwNullParameter( const char * param, const char * className, const char * attr ) {
   // The trailing double quote is part of the established text.
   throw RangeException( std::string( "null _" ) + param + " parameter to mutator for " +
                         className + "::" + attr + " not allowed\"" );
}

} // namespace Kiv
