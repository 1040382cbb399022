#pragma once
// Reads the daemon's YAML configuration file into DaemonConfig, collecting
// every error with its place in the file.
#include <optional>
#include <string>
#include <vector>

#include "DaemonConfig.h"

namespace Pimnbrd {

struct ConfigError {
   std::string file;
   int line = 0;     // 1-based
   int column = 0;   // 1-based
   std::string path; // dotted key path, e.g. "vrfs.default.interfaces.eth0.dr-priority"
   std::string message;
   // "file:line:col: key.path: message"
   std::string text() const;
};

struct ParseResult {
   std::optional< DaemonConfig > config;   // set only when errors is empty
   std::vector< ConfigError > errors;
};

// fileName is used in the error texts only.
ParseResult parseConfigText( const std::string & text, const std::string & fileName );
ParseResult parseConfigFile( const std::string & path );

} // namespace Pimnbrd
