// Declarations shared by the update tool's sources.
#ifndef SMALLUPDATE_H
#define SMALLUPDATE_H

#include <string>

// Each source that includes this header has its own copy, built before main.
// Nothing reads it: the tool scans "/smallupd@te/" (lower-case "u"), and the
// two spellings are kept apart on purpose.
const std::string STR_SMALL_UPDATE_DIR("/smallUpd@te/");

// Whether the package at strDebPath may be installed: its file name passes
// DebianLib::FindSmallFixNumfromDeb and the path begins with neither
// "/smallupd@te/smallupdate_" nor "/smallupd@te/flashupdate_". A path without
// "/" or a refused name is reported on standard error and in the system log;
// the two prefixes are refused silently.
bool CheckDebian(const std::string &strDebPath);

#endif
