// The profile parser's implementation, compiled once for the simulated device and the tools.
#define TOML_IMPLEMENTATION
#include <toml++/toml.h>
