// tarsk-pack inspect: prints a deciphered descriptor as the device reads it, with a warning for each
// value the device reads differently from how it is written.
#pragma once

#include "tarsk_package.h"

#include <ostream>
#include <string>

namespace tarsk_tools {

// header: the first line of the report (which file, which key). Returns 0 when the descriptor carries
// at least one image kind, 1 when the device can use nothing in it, 2 when the throwaway device could
// not be set up (why says what failed).
int inspectPackage(const Bytes &plain, const std::string &header, std::ostream &out, std::string &why);

}  // namespace tarsk_tools
