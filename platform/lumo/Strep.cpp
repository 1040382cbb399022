#include "lumo/Strep.h"

#include <fmt/format.h>

namespace Lumo::Detail {

void throwMalformed( const char * typeName, std::string_view text ) {
   throw Kiv::RangeException( fmt::format( "{}::fromStrep: malformed \"{}\"", typeName, text ) );
}

} // namespace Lumo::Detail
